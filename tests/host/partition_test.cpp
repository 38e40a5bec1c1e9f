// Partitions that the host mounts: on loop devices, as root.
#include <sys/mount.h>
#include <sys/statvfs.h>

#include "host_process.h"

namespace host_test {
namespace {

namespace fs = std::filesystem;

class PartitionTest : public HostTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can mount";
  }
  ~PartitionTest() override {
    if (mDevice.empty()) return;
    ::umount2(mPlace.c_str(), MNT_DETACH);
    run({"losetup", "-d", mDevice});
    fs::remove(mPlace);
  }

  /// The exit code; what was printed is in mPrinted.
  int run(const std::vector<std::string>& arguments) {
    const std::string file = mDirectory + "/printed";
    const int code = zor::test::waitFor(zor::test::spawn(arguments, file, file));
    mPrinted = slurp(file);
    return code;
  }
  /// Makes a disk with a file system that is labelled mLabel. False when that cannot be had here.
  bool plugIn(const std::string& maker) {
    const std::string image = mDirectory + "/image";
    fs::remove(image);
    std::ofstream(image).close();
    fs::resize_file(image, 16 << 20);
    const bool isMade = run({maker, maker == "mkntfs" ? "-Fq" : "-q", "-L", mLabel, image}) == 0 &&
                        run({"losetup", "-f", "--show", image}) == 0;
    if (!isMade) return false;
    mDevice = mPrinted.substr(0, mPrinted.size() - 1);
    // A new device, for the listing, which keeps what it knew for two seconds.
    ::utimensat(AT_FDCWD, mDevice.c_str(), nullptr, 0);
    return true;
  }
  void pullOut() {
    EXPECT_EQ(run({"losetup", "-d", mDevice}), 0);
    mDevice.clear();
  }
  void servePartition(const std::string& device, const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"serve", "--partition", device, "--socket", mSocket};
    arguments.insert(arguments.end(), more.begin(), more.end());
    launch(arguments);
    ASSERT_TRUE(eventually([&] { return logged("serving") == 1; }));
  }
  void expectRefusal() {
    EXPECT_EQ(run({"timeout", "30", HOST_PROGRAM, "serve", "--partition", mDevice, "--socket",
                   mSocket + "2"}),
              1);
    EXPECT_THAT(mPrinted, ::testing::HasSubstr("another udisk-host serves it"));
  }
  int end() {
    ::kill(mPid, SIGTERM);
    const int code = exitCode();
    if (!HasFailure()) fs::remove(mLog);
    return code;
  }
  unsigned long flags(const std::string& place) const {
    struct statvfs status {};
    EXPECT_EQ(::statvfs(place.c_str(), &status), 0);
    return status.f_flag & (ST_NOSUID | ST_NODEV | ST_RDONLY);
  }
  bool mounted(const std::string& place) const {
    return slurp("/proc/self/mountinfo").find(" " + place + " ") != std::string::npos;
  }

  const std::string mLabel = "ud" + std::to_string(::getpid()), mPlace = "/media/" + mLabel;
  std::string mDevice, mPrinted;
};

TEST_F(PartitionTest, IsMountedWithoutDevicesAndProgramsAndUnmountedAtTheEnd) {
  for (const std::string maker : {"mkntfs", "mkfs.ext4"}) {
    if (!plugIn(maker)) GTEST_SKIP() << maker << " or a loop device is missing";
    fs::create_symlink(mDevice, mDirectory + "/by-label");
    const unsigned long safe = ST_NOSUID | ST_NODEV;
    const struct {
      std::string device;
      std::vector<std::string> more;
      unsigned long flags;
    } rows[] = {{mDevice, {"--sandbox=required"}, safe},
                {mDirectory + "/by-label", {"--sandbox=off"}, safe},
                {mDevice.substr(5), {"--read-only"}, safe | ST_RDONLY}};
    for (const auto& row : rows) {
      servePartition(row.device, row.more);
      EXPECT_EQ(flags(mPlace), row.flags) << maker << row.device;
      EXPECT_TRUE(Remote(mSocket).greeted());
      EXPECT_EQ(end(), 0);
      EXPECT_FALSE(fs::exists(mPlace)) << maker << row.device;
    }
    fs::remove(mDirectory + "/by-label");
    pullOut();
  }
}

TEST_F(PartitionTest, WhatIsAtItsPlaceAlreadyStaysAsItIs) {
  if (!plugIn("mkfs.ext4")) GTEST_SKIP() << "mkfs.ext4 or a loop device is missing";
  const std::string other = "/media/" + mDevice.substr(5);
  fs::create_directories(mPlace + "/2026");
  std::ofstream(mPlace + "/2026/thesis.tex") << "years";
  servePartition(mDevice);
  EXPECT_TRUE(mounted(other));
  EXPECT_EQ(logged(mPlace + " is not used"), 1);
  EXPECT_EQ(end(), 0);
  EXPECT_FALSE(fs::exists(other));
  EXPECT_EQ(slurp(mPlace + "/2026/thesis.tex"), "years");
  fs::remove_all(mPlace);
}

TEST_F(PartitionTest, IsServedByOneHostAndAgainAfterThatOneWasKilled) {
  if (!plugIn("mkfs.ext4")) GTEST_SKIP() << "mkfs.ext4 or a loop device is missing";
  servePartition(mDevice);
  expectRefusal();
  EXPECT_TRUE(Remote(mSocket).greeted());
  ::kill(mPid, SIGKILL);
  exitCode();
  EXPECT_TRUE(mounted(mPlace));
  fs::remove(mLog);
  servePartition(mDevice);
  EXPECT_EQ(logged("serving " + mPlace), 1);
  EXPECT_EQ(end(), 0);
  EXPECT_FALSE(mounted(mPlace));
}

// Mounted by hand: unmounting it would take it from the other host.
TEST_F(PartitionTest, IsNotTakenFromAHostThatServesItsDirectory) {
  if (!plugIn("mkfs.ext4")) GTEST_SKIP() << "mkfs.ext4 or a loop device is missing";
  fs::create_directories(mPlace);
  ASSERT_EQ(run({"mount", mDevice, mPlace}), 0);
  fs::create_directory(mPlace + "/below");
  launch({"serve", mPlace + "/below", "--socket", mSocket});
  ASSERT_TRUE(eventually([&] { return logged("serving") == 1; }));
  expectRefusal();
  EXPECT_TRUE(mounted(mPlace));
  EXPECT_EQ(end(), 0);
}

TEST_F(PartitionTest, SaysWhyItIsNotMounted) {
  const std::string file = mDirectory + "/disk";
  const std::pair<std::string, std::string> rows[] = {
      {"sdnone1", "/dev/sdnone1: No such file or directory"},
      {"/dev/null", "/dev/null is no partition: it is not a block device"},
      {file, file + " is no partition: it is not a block device"}};
  for (const auto& [device, message] : rows) {
    EXPECT_EQ(run({HOST_PROGRAM, "serve", "--partition", device, "--socket", mSocket}), 1);
    EXPECT_EQ(mPrinted, "udisk-host: " + message + "\n");
  }
}

}  // namespace
}  // namespace host_test
