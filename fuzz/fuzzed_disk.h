// A small disk, and beside it files that no request may touch.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <csignal>

#include "driver/disk_fixture.h"
#include "input.h"

namespace zor::fuzz {

/// As root, /media becomes a small file system that nobody else sees, and the
/// disk lies there. Whether it is so, and directories below /media may be made.
inline bool isolate() {
  // Removing what a request may nest takes a descriptor per level; nothing
  // becomes so large that reading its holes takes all the time.
  const rlimit many{8192, 8192}, large{16 << 20, 16 << 20};
  ::setrlimit(RLIMIT_NOFILE, &many);
  ::setrlimit(RLIMIT_FSIZE, &large);
  return ::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0 &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("fuzz", "/media", "tmpfs", 0, "size=4m,nr_inodes=400") == 0 &&
         ::setenv("TEST_TMPDIR", "/media/", 1) == 0;
}
inline const bool kIsolated = isolate();

/// One per process.
class FuzzedDisk : public test::DiskTest {
 public:
  using DiskTest::device, DiskTest::disk, DiskTest::op;

  /// Everything as before the first input.
  void restore() {
    ::signal(SIGXFSZ, SIG_IGN);
    layOut();
    ::mkfifo((disk + "/pipe").c_str(), 0644);
    log.clear();
    op.SetRootPath(nullptr, nullptr);
    announce();
    if (!kIsolated) return;
    for (const auto& entry : test::fs::directory_iterator("/media")) {
      if (entry.path() != base) test::fs::remove_all(entry);
    }
  }
  /// `told` is what came back for `input`.
  static void checkSecret(std::string_view told, std::string_view input) {
    EXPECT_TRUE(told.find("canary") == told.npos || input.find("canary") != input.npos);
  }
  void checkOutside() { EXPECT_EQ(state(), mState); }

 private:
  void TestBody() override {}
  std::string state() {
    std::string names;
    for (const auto& entry : test::fs::directory_iterator(base)) names += entry.path();
    return names + test::snapshot(outside) + test::snapshot(base + "/disk-sibling");
  }
  const std::string mState = state();
};

}  // namespace zor::fuzz
