// Whatever path a peer sends, and whatever links the disk holds: nothing
// outside the mount point is read or changed.
#include <fcntl.h>
#include <sys/mount.h>

#include <atomic>
#include <thread>

#include "disk_fixture.h"
#include "file_manager_linux/disk_root.h"
#include "probes.h"

namespace zor::test {
namespace {

/// With the kernel's help, and by the walk that does without it.
class ConfinementTest : public DiskTest, public testing::WithParamInterface<bool> {
 protected:
  ConfinementTest() { DiskRoot::forceComponentWalk(GetParam()); }
  ~ConfinementTest() override {
    DiskRoot::forceComponentWalk(false);
    EXPECT_EQ(snapshot(outside), mBefore);
  }
  void expectFailure(const Probe& probe, const std::string& path) {
    EXPECT_EQ(answer(probe.cmd, probe.request(path)), hexOf(probe.failure(path)))
        << probe.name << " " << path;
  }

 private:
  const std::string mBefore = snapshot(outside);
};

INSTANTIATE_TEST_SUITE_P(Disk, ConfinementTest, testing::Bool(),
                         [](const auto& run) { return run.param ? "ComponentWalk" : "Openat2"; });

TEST_P(ConfinementTest, NoPathLeadsOutside) {
  const auto before = snapshot(base);
  for (const std::string mountPoint : {"/disk", "/disk/"}) {
    op.SetRootPath((base + mountPoint).data(), std::string().data());
    for (const Probe& probe : kProbes) {
      for (const char* way :
           {"/../outside/", "/sub/../../outside/", "//sub/./deep/..//../../outside/", "../outside/",
            "/../disk-sibling/", "/out/", "/rel/", "/in/rel/", "/sub/up/outside/",
            "/sub/up/disk-sibling/", "/sub/back/../outside/", "/in/../outside/", "/out/../disk/"}) {
        expectFailure(probe, way + probe.leaf());
      }
      expectFailure(probe, "/../../../../../.." + outside + "/" + probe.leaf());
      expectFailure(probe, "/link-" + probe.leaf() + "/");
      if (probe.followsLink) expectFailure(probe, "/link-" + probe.leaf());
      expectFailure(probe, "/" + std::string(5000, 'x'));               // longer than any path
      for (const std::string way : {"-sibling/", "\\..\\outside\\"}) {  // else names of the disk
        if (mountPoint == "/disk") expectFailure(probe, way + probe.leaf());
      }
      if (probe.cmd == 114) {  // takes a backslash for a separator
        expectFailure(probe, "/sub\\..\\..\\outside\\fresh");
        expectFailure(probe, "/..\\outside\\fresh");
      }
    }
  }
  EXPECT_EQ(snapshot(base), before);
}

TEST_P(ConfinementTest, WithoutAMountPointNothingIsReachable) {
  // The last would be the root directory if it were cut.
  using Parts = std::pair<std::string, std::optional<std::string>>;
  for (auto [letter, label] : {Parts{"", {}}, {"", ""}, {std::string(5000, '/'), ""}}) {
    op.SetRootPath(letter.data(), label ? label->data() : nullptr);
    for (const Probe& probe : kProbes) {
      expectFailure(probe, outside + "/" + probe.leaf());
      expectFailure(probe, outside.substr(1) + "/" + probe.leaf());
    }
  }
}

TEST_P(ConfinementTest, LinksAndDotDotThatStayInsideWork) {
  for (const Probe& probe : kProbes) {
    for (const std::string way : {"/sub/../", "//./sub/deep/../..//", "/in/", "/sub/back/"}) {
      layOut();
      const bool refused = GetParam() && (way == "/in/" || way == "/sub/back/");  // links
      const std::string path = way + probe.leaf(), reply = answer(probe.cmd, probe.request(path));
      EXPECT_EQ(reply == hexOf(probe.failure(path)), refused) << probe.name << " " << path;
    }
  }
}

TEST_P(ConfinementTest, MagicLinksLeadNowhere) {
  fs::create_directory(disk + "/proc");
  if (::mount("proc", (disk + "/proc").c_str(), "proc", 0, nullptr) != 0) {
    GTEST_SKIP() << "proc cannot be mounted here";
  }
  fs::current_path(outside);
  for (const Probe& probe : kProbes) {
    expectFailure(probe, "/proc/self/cwd/" + probe.leaf());
    expectFailure(probe, "/proc/self/root" + outside + "/" + probe.leaf());
  }
  fs::current_path("/");
  EXPECT_EQ(::umount2((disk + "/proc").c_str(), 0), 0);
}

TEST_P(ConfinementTest, ANeighbourWhoRenamesWinsNoRace) {
  // What is a directory of the disk at one moment is a link to the outside at the next.
  for (const Probe& probe : kProbes) {
    layOut();
    fs::create_directories(disk + "/d/empty");
    put(disk + "/d/inside.txt", "0123456789");
    std::atomic<bool> stop{false};
    std::thread neighbour([&, d = disk + "/d", out = disk + "/out"] {
      while (!stop) ::renameat2(AT_FDCWD, d.c_str(), AT_FDCWD, out.c_str(), RENAME_EXCHANGE);
    });
    const std::string path = "/d/" + probe.leaf(), failure = probe.failure(path);
    bool metTheLink = false;
    for (int round = 0; round < 300 || (!metTheLink && round < 20000); ++round) {
      const auto reply = ask(probe.cmd, probe.request(path)).value_or("");
      metTheLink = metTheLink || reply == failure;
      EXPECT_EQ(reply.find("canary"), std::string::npos);
    }
    stop = true;
    neighbour.join();
    EXPECT_TRUE(metTheLink) << probe.name;
  }
}

}  // namespace
}  // namespace zor::test
