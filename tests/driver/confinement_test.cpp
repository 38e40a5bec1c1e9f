// Whatever path a peer sends, and whatever links the disk holds: nothing
// outside the mount point is read or changed.
#include <fcntl.h>
#include <sys/mount.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "disk_fixture.h"
#include "file_manager_linux/disk_root.h"

namespace zor::test {
namespace {

/// With the kernel's help, and by the walk that does without it.
class ConfinementTest : public DiskTest, public testing::WithParamInterface<bool> {
 protected:
  ConfinementTest() {
    DiskRoot::forceComponentWalk(GetParam());
    for (const char* name : {"", "/empty", "/inside.txt"}) {
      const struct stat status = lstatOf(outside + name);
      mTraces.push_back(le(status.st_dev, 8) + le(status.st_ino, 8));
    }
  }
  ~ConfinementTest() override {
    DiskRoot::forceComponentWalk(false);
    EXPECT_EQ(surroundings(), mSurroundings);
  }
  void expectFailure(const Probe& probe, const std::string& path) {
    EXPECT_EQ(answer(probe.cmd, probe.request(path)), hexOf(probe.failure(path)))
        << probe.name << " " << path;
  }
  /// All that is near the disk, and that the disk is still the same directory.
  std::string surroundings() const {
    std::string all = snapshot(outside) + snapshot(base + "/disk-sibling");
    for (const auto& entry : fs::directory_iterator(base)) all += entry.path();
    return all + std::to_string(lstatOf(disk).st_ino);
  }
  /// Whether a reply holds contents or attributes from there.
  bool holdsTheOutside(const std::optional<std::string>& reply) const {
    const auto found = [&](const std::string& trace) { return reply->find(trace) != reply->npos; };
    return reply && std::any_of(mTraces.begin(), mTraces.end(), found);
  }

  const std::string mSurroundings = surroundings();
  const std::vector<const Probe*> mRequests = everyRequest();
  std::vector<std::string> mTraces = {"canary"};
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

TEST_P(ConfinementTest, NoCommandLeavesTheDiskByAnyText) {
  const std::string away = "/../../outside ";
  std::string ups, dots;
  for (int i = 0; i < 500; ++i) ups += "/..", dots += "/./.";
  std::istringstream words(
      R"(. .. / /.. /... ~ %2e%2e/outside ../outside -sibling /../outside /../disk-sibling /out
         /out/.. /rel /in/rel /link-inside.txt /link-empty /link-fresh /sub/up/outside /magic-cwd
         /sub/back/../outside /inside.txt/../../outside /none/../../outside /loop /loop/../../outside
         /magic /magic/tmp \..\outside /..\outside /sub\..\..\outside /sub/deep\..\..\..\outside
         @ @/../../outside /inside.txt@/../../outside /../outside@ )" +
      dots + away + ups + outside + " " + outside + " /" + outside + " /magic" + outside + " " +
      std::string(4000, '/') + "../outside /" + std::string(256, 'x') + away + "/" +
      std::string(4070, 'x') + away + "/../" + std::string(60000, 'x') + " /.." +
      std::string(4093 - disk.size(), '/'));
  std::vector<std::string> ways = {""};
  for (std::string word; words >> word; ways.push_back(word)) {
    std::replace(word.begin(), word.end(), '@', '\0');
  }
  fs::current_path(outside);
  morvelLogSetLevel(kLogError);
  for (const std::string& way : ways) {
    layOut();
    fs::create_symlink("loop", disk + "/loop");
    fs::create_symlink("/proc/self/root", disk + "/magic");
    fs::create_symlink("/proc/self/cwd", disk + "/magic-cwd");
    for (const Probe* probe : mRequests) {
      for (const char* end : {"", "/", "/.", "/..", "/inside.txt", "/empty", "/fresh"}) {
        const std::string path = way + end;
        if (probe->cmd == 100 && path.find('/') == path.npos) continue;  // makes a mount directory
        EXPECT_FALSE(holdsTheOutside(ask(probe->cmd, probe->request(path)))) << probe->name << path;
        if (probe->cmd == 100 || probe->cmd == 101) announce();
      }
      ASSERT_EQ(surroundings(), mSurroundings) << probe->name << " " << way;
    }
  }
  fs::current_path("/");
}

TEST_P(ConfinementTest, ANeighbourWhoRenamesWinsNoRace) {
  // What is a directory or a file of the disk at one moment is a link to the outside at the next.
  const char* wanted = std::getenv("UDISK_RACE_ROUNDS");
  const int rounds = wanted != nullptr ? std::atoi(wanted) : 3000;
  morvelLogSetLevel(kLogError + 1);
  std::atomic<bool> stop{false};
  Mutex building;
  std::thread neighbour([&] {
    for (int turn = 0; !stop; ++turn) {
      const char* names[] = {"/d",     "/out",        "/inside.txt", "/link-inside.txt",
                             "/empty", "/link-empty", "/fresh",      "/link-fresh"};
      const std::string one = disk + names[turn % 4 * 2], other = disk + names[turn % 4 * 2 + 1];
      const MutexLock lock(building);
      ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
    }
  });
  int round = 0, listed = 0, refused = 0, turns = 0;
  while (round < rounds || ((listed == 0 || refused == 0) && round < 500000)) {
    for (const std::string way : {"/d/", "/d/../d/", "/"}) {
      {
        const MutexLock lock(building);
        layOut();
        fs::create_directories(disk + "/d/empty");
        put(disk + "/d/inside.txt", "0123456789");
      }
      // By itself, or with others that share what is open: a file from the third time on.
      std::optional<UDiskOperator::RequestBatch> together;
      if (++turns % 2 == 0) together.emplace(op);
      for (const Probe* probe : mRequests) {
        if (probe->cmd < 102) continue;  // would take the mount point away
        const std::string path = way + probe->leaf();
        for (int times = together ? 3 : 1; times > 0; --times) {
          const auto reply = ask(probe->cmd, probe->request(path));
          EXPECT_FALSE(holdsTheOutside(reply)) << probe->name << " " << path;
          if (probe->cmd == 107) ++(reply == probe->failure(path) ? refused : listed);
          ++round;
        }
      }
    }
  }
  stop = true;
  neighbour.join();
  EXPECT_TRUE(listed > 0 && refused > 0);  // both sides of the exchange were met
  std::printf("%d requests; listed were %d directories, %d links\n", round, listed, refused);
}

}  // namespace
}  // namespace zor::test
