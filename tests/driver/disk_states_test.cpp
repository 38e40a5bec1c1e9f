// A disk that is gone, write-protected, or full of files that are none.
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <atomic>
#include <thread>

#include "disk_fixture.h"

namespace zor::test {
namespace {

class DiskStateTest : public DiskTest {
 protected:
  bool fails(const Probe& probe, const std::string& path) {
    return answer(probe.cmd, probe.request(path)) == hexOf(probe.failure(path));
  }
  /// Whatever shows at the mount point now is not the disk.
  void expectAllFail() {
    const auto before = snapshot(disk);
    for (const Probe& probe : kProbes) EXPECT_TRUE(fails(probe, "/" + probe.leaf())) << probe.name;
    EXPECT_EQ(snapshot(disk), before);
  }
};

TEST_F(DiskStateTest, WhatShowsInPlaceOfAGoneDiskIsLeftAlone) {
  fs::rename(disk, base + "/unplugged");
  layOut();
  expectAllFail();
  EXPECT_TRUE(log.has("the disk at " + disk + " is gone"));
  announce();  // anew, it is a new disk
  EXPECT_FALSE(fails(kProbes[0], "/inside.txt"));
}

TEST_F(DiskStateTest, ADirectoryWaitsForItsDiskAndADiskForNoOther) {
  const std::string other = outside + "/empty";
  EXPECT_FALSE(fails(kProbes[0], "/inside.txt"));
  if (::mount("tmpfs", other.c_str(), "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "nothing can be mounted here";
  }
  fs::rename(disk, disk + ".away");
  fs::create_directory_symlink(other, disk);
  layOut();
  expectAllFail();
  fs::remove(disk);
  fs::rename(disk + ".away", disk);
  ASSERT_EQ(::mount("tmpfs", disk.c_str(), "tmpfs", 0, nullptr), 0);
  layOut();
  Peek::diskChanged(op) = 0;
  for (const Probe& probe : kProbes) {
    EXPECT_FALSE(fails(probe, "/" + probe.leaf())) << probe.name;
    EXPECT_TRUE(probe.cmd != 102 || Peek::diskChanged(op) == 1);  // other statistics
    layOut();
  }
  ASSERT_EQ(::umount2(disk.c_str(), 0), 0);  // nothing holds it open
  expectAllFail();
  EXPECT_EQ(log.all("the disk at " + disk + " is gone").size(), 2U);
  ASSERT_EQ(::mount(other.c_str(), disk.c_str(), nullptr, MS_BIND, nullptr), 0);
  layOut();
  expectAllFail();
  for (const std::string& place : {disk, other}) EXPECT_EQ(::umount2(place.c_str(), 0), 0);
}

TEST_F(DiskStateTest, AWriteProtectedDiskKeepsEveryByte) {
  op.SetReadOnly(true);
  const auto before = snapshot(disk);
  for (const Probe& probe : kProbes) {
    EXPECT_EQ(fails(probe, "/" + probe.leaf()), probe.changesDisk) << probe.name;
  }
  converse("120 0b000000 00000000 '/inside.txt' | =;");
  EXPECT_EQ(snapshot(disk), before);
}

TEST_F(DiskStateTest, SpecialFilesFailAtOnce) {
  ASSERT_EQ(::mkfifo((disk + "/fifo").c_str(), 0666), 0);
  fs::create_symlink("fifo", disk + "/fifo-link");
  sockaddr_un address{AF_UNIX, {}};
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s/socket", disk.c_str());
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(socket);
  // As a plain file, the device would take every byte; only root can make it.
  ::mknod((disk + "/null").c_str(), S_IFCHR | 0666, makedev(1, 3));
  const auto before = snapshot(disk);
  ::alarm(60);  // ends a test that hangs
  for (const std::string name : {"/fifo", "/fifo-link", "/socket", "/empty", "/null"}) {
    if (!fs::exists(fs::symlink_status(disk + name))) continue;
    for (const Probe& probe : kProbes) {
      for (const int cmd : {103, 105, 106, 109, 110, 123}) {
        EXPECT_TRUE(probe.cmd != cmd || fails(probe, name)) << probe.name << " " << name;
      }
    }
    EXPECT_TRUE(ask(120, le(name.size(), 4) + le(0, 4) + name));
  }
  ::alarm(0);
  EXPECT_EQ(snapshot(disk), before);
}

// Nor opened at all, once one was met.
TEST_F(DiskStateTest, ADeviceIsNotTakenForTheFileInWhosePlaceItIsPut) {
  const std::string file = disk + "/inside.txt", zeros = disk + "/zeros";
  if (::mknod(zeros.c_str(), S_IFCHR | 0666, makedev(1, 5)) != 0 ||
      !UniqueFd(::open(zeros.c_str(), O_RDONLY | O_CLOEXEC))) {
    GTEST_SKIP() << "there are no devices here";
  }
  morvelLogSetLevel(kLogError + 1);
  for (const auto& [met, event] :
       {std::pair{true, 0U + IN_OPEN}, {false, 0U + IN_ACCESS + IN_MODIFY}}) {
    if (!fs::is_regular_file(file)) fs::rename(zeros, disk + "/x"), fs::rename(file, zeros);
    put(file, "0123456789");
    const UniqueFd watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(::inotify_add_watch(watch.get(), zeros.c_str(), event), 0);
    std::atomic<bool> stop{false};
    std::thread neighbour([&] {
      while (!stop) {
        ::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, zeros.c_str(), RENAME_EXCHANGE);
      }
    });
    for (int round = 0; round < 3000; ++round) {
      std::optional<UDiskOperator::RequestBatch> together;
      if (round % 2 == 0) together.emplace(op);
      for (const Probe& probe : kProbes) {
        for (const int cmd : {103, 105, 106, 109, 110, 123}) {
          FileManagerLinux::expectDevices(met);
          if (probe.cmd == cmd) ask(cmd, probe.request("/inside.txt"));
        }
      }
    }
    stop = true;
    neighbour.join();
    char events[4096];
    EXPECT_EQ(::read(watch.get(), events, sizeof events), -1) << met;
  }
}

TEST_F(DiskStateTest, WhereAFilterForbidsOpenat2PathsAreWalked) {
  const auto serve = [this] {
    sock_filter filter[] = {{BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
                            {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_openat2},
                            {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | EPERM},
                            {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
    const sock_fprog program{4, filter};
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) std::exit(2);
    bool right = true;
    for (const Probe& probe : kProbes) {
      right = right && fails(probe, "/rel/" + probe.leaf()) && !fails(probe, "/" + probe.leaf());
      layOut();
    }
    std::exit(right ? 0 : 1);
  };
  EXPECT_EXIT(serve(), testing::ExitedWithCode(0), "");
}

TEST_F(DiskStateTest, ATraceThatCannotBeMadeCostsNoReply) {
  device.brokenTraces = true;
  device.pathTable->Add("*");
  for (const Probe& probe : kProbes) EXPECT_TRUE(fails(probe, "/spare/none/")) << probe.name;
  EXPECT_GT(log.errors("no trace of DEVICE_REDIR_ERROR"), 0U);
  device.hasBase = false;
  for (const Probe& probe : kProbes) EXPECT_TRUE(fails(probe, "/spare/none/")) << probe.name;
}

TEST_F(DiskStateTest, WhatMayHaveChangedTheDiskIsRemembered) {
  for (const Probe& probe : kProbes) {
    for (const std::string& path : {"/" + probe.leaf(), std::string("/none/none")}) {
      layOut();
      Peek::diskChanged(op) = 0;
      ask(probe.cmd, probe.request(path));
      const bool modeOrOwner = probe.cmd == 111 || probe.cmd == 112;
      EXPECT_EQ(Peek::diskChanged(op), probe.changesDisk && !modeOrOwner) << probe.name << path;
    }
  }
}

}  // namespace
}  // namespace zor::test
