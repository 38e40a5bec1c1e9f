// Leases of paths, and the renames that wait for them.
#include "drive/paths/path_gate.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

namespace zor::client::test {
namespace {

class PathGateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    udisk_stat directory{};
    directory.st_mode = S_IFDIR | 0755;
    mNames.learn(kRootNode, "d", directory, 0);
    mDirectory = mNames.nodeAt(mNames.root(), *mNames.findPlace(kRootNode, "d")).id;
  }
  std::string pathOf(const std::optional<PathLease>& lease) { return lease ? lease->path() : ""; }

  Mutex mMutex;
  NameCache mNames;
  PathGate mGate{mMutex, mNames};
  NodeId mDirectory = 0;
};

TEST_F(PathGateTest, ALeaseHasThePresentPath) {
  const MutexLock lock(mMutex);
  EXPECT_EQ(pathOf(mGate.lease(kRootNode)), "/");
  EXPECT_EQ(pathOf(mGate.lease(mDirectory, "f")), "/d/f");
  {
    const PathGate::Rename rename(mGate);
    mNames.move(kRootNode, "d", kRootNode, "e");
    EXPECT_EQ(pathOf(rename.lease(mDirectory, "f")), "/e/f");
  }
  EXPECT_EQ(pathOf(mGate.lease(mDirectory)), "/e");
  ++mNames.find(mDirectory)->references;
  mNames.remove(mNames.root(), "e");
  EXPECT_FALSE(mGate.lease(mDirectory));
}

TEST_F(PathGateTest, ARenameWaitsForLeasesAndOthersWaitForIt) {
  MutexLock lock(mMutex);
  std::optional<PathLease> lease = mGate.lease(mDirectory);
  bool closed = false;
  bool renamed = false;
  std::thread renaming([&] {
    const MutexLock other(mMutex);
    const PathGate::Rename rename(mGate);
    closed = true;
    mNames.move(kRootNode, "d", kRootNode, "e");
    renamed = true;
  });
  while (mGate.isOpen() && !renamed) {
    lock.unlock();
    std::this_thread::yield();
    lock.lock();
  }
  EXPECT_FALSE(closed) << "there is a lease";
  std::string deferred;
  mGate.whenOpen([&] { deferred = pathOf(mGate.lease(mDirectory)); });
  EXPECT_EQ(deferred, "");
  lease.reset();
  EXPECT_EQ(pathOf(mGate.lease(mDirectory)), "/e") << "this has waited";
  EXPECT_TRUE(renamed);
  EXPECT_EQ(deferred, "/e");
  lock.unlock();
  renaming.join();
}

}  // namespace
}  // namespace zor::client::test
