// The drive over a real link to a real host, without the kernel.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "scripted_host.h"

namespace zor::client::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class DriveTest : public ScriptedDrive {
 protected:
  std::uint64_t requests() { return mLink->metrics().snapshot().total().requests; }
};

TEST_F(DriveTest, OneListingHasAllOfADirectoryAndOwnChangesKeepItValid) {
  for (int i = 0; i < 300; ++i) writeFile(mDisk / ("file" + std::to_string(i)), "text");
  connect();
  const std::uint64_t before = requests();
  EXPECT_EQ((*mDrive->openDirectory(kRootNode))->size(), 300U);
  for (int i = 0; i < 300; ++i) EXPECT_NE(node("file" + std::to_string(i)), 0U);
  EXPECT_EQ(node("missing"), 0U);
  EXPECT_EQ(requests() - before, 3U);  // two asked whether the disk takes "FILE0" for "file0"

  OpenFile& file = create("new");
  EXPECT_EQ(write(file, "12345"), 0);
  EXPECT_EQ(mDrive->attributes(node("new"))->attributes.st_size, 5);
  EXPECT_EQ(flush(file), 0);
  mDrive->release(file);
  EXPECT_EQ(errnoOf(mDrive->unlink(kRootNode, "file7")), 0);
  EXPECT_EQ(errnoOf(mDrive->rename(kRootNode, "file8", kRootNode, "file9", 0)), 0);
  EXPECT_TRUE(mDrive->makeDirectory(kRootNode, "back\\slash", 0755));
  const std::uint64_t after = requests();
  EXPECT_EQ((*mDrive->openDirectory(kRootNode))->size(), 300U);
  EXPECT_EQ(node("file7"), 0U);
  EXPECT_EQ(node("file8"), 0U);
  EXPECT_EQ(requests(), after);
  struct stat status {};
  ASSERT_EQ(::stat((mDisk / "new").c_str(), &status), 0);
  EXPECT_EQ(mDrive->attributes(node("new"))->attributes.st_mtim.tv_nsec, status.st_mtim.tv_nsec);
  EXPECT_TRUE(fs::is_directory(mDisk / "back\\slash"));
}

TEST_F(DriveTest, AnUnchangedDirectoryIsCheckedAndAChangedOneFollowed) {
  writeFile(mDisk / "old", "text");
  const timespec past[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
  ::utimensat(AT_FDCWD, (mDisk / "old").c_str(), past, 0);
  connectUncached();
  EXPECT_EQ((*mDrive->openDirectory(kRootNode))->size(), 1U);
  EXPECT_EQ((*mDrive->openDirectory(kRootNode))->size(), 1U);
  EXPECT_EQ(mDrive->counters().dirUnchanged, 1U);
  writeFile(mDisk / "other", "");
  EXPECT_EQ((*mDrive->openDirectory(kRootNode))->size(), 2U);
  // What a check does not compare is seen when the file itself is asked for.
  fs::remove(mDisk / "other");
  EXPECT_EQ(node("other"), 0U);
}

TEST_F(DriveTest, ANameThatAppearedOverThereIsNotEmptied) {
  connect();
  EXPECT_EQ(node("precious"), 0U);
  writeFile(mDisk / "precious", "only copy");
  fs::create_directory(mDisk / "taken");
  const auto exclusive = mDrive->create(kRootNode, "precious", 0644, O_CREAT | O_EXCL | O_WRONLY);
  ASSERT_FALSE(exclusive);
  EXPECT_EQ(exclusive.error().value, EEXIST);
  mDrive->release(create("precious"));
  EXPECT_EQ(readFile(mDisk / "precious"), "only copy");
  const auto directory = mDrive->makeDirectory(kRootNode, "taken", 0755);
  ASSERT_FALSE(directory);
  EXPECT_EQ(directory.error().value, EEXIST);
  EXPECT_EQ(errnoOf(mDrive->rename(kRootNode, "taken", kRootNode, "precious", RENAME_NOREPLACE)),
            EEXIST);
}

TEST_F(DriveTest, OpenFilesSurviveNewNamesAndNone) {
  writeFile(mDisk / "b", "replaced");
  connect();
  OpenFile& old = open(node("b"), O_RDWR);
  OpenFile& file = create("a");
  EXPECT_EQ(write(file, "first "), 0);
  EXPECT_EQ(errnoOf(mDrive->rename(kRootNode, "a", kRootNode, "b", 0)), 0);
  EXPECT_EQ(write(file, "second", 6), 0);
  EXPECT_EQ(read(old), "replaced");
  EXPECT_EQ(read(file), "first second");
  EXPECT_EQ(errnoOf(mDrive->unlink(kRootNode, "b")), 0);
  EXPECT_EQ(write(file, " third", 12), 0);
  EXPECT_EQ(read(file), "first second third");
  EXPECT_THAT(**mDrive->openDirectory(kRootNode), IsEmpty());
  mDrive->release(file);
  mDrive->release(old);
  EXPECT_TRUE(fs::is_empty(mDisk.root()));
}

TEST_F(DriveTest, ALostWriteIsReportedByTheFileAndAtTheEnd) {
  connect();
  OpenFile& file = create("lost");
  OpenFile& other = open(node("lost"), O_RDWR);
  EXPECT_EQ(write(file, "text"), 0);
  fs::remove(mDisk / "lost");
  EXPECT_EQ(errnoOf(mDrive->sync(file)), EIO);
  EXPECT_EQ(flush(other), EIO);
  EXPECT_EQ(flush(file), 0);
  mDrive->release(file);
  mDrive->release(other);
  EXPECT_THAT(mDrive->finish(), ElementsAre("/lost"));
}

TEST_F(DriveTest, ManyWritesTravelTogetherAndAllArrive) {
  connect();
  OpenFile& file = create("many");
  std::string expected(40000, '\0');
  const std::uint64_t before = requests();
  for (int i = 0; i < 2000; ++i) {
    const int at = (i * 7919 % 4000) * 10;
    const std::string text = std::to_string(1000000000 + i);
    expected.replace(static_cast<std::size_t>(at), 10, text);
    ASSERT_EQ(write(file, text, at), 0);
  }
  EXPECT_EQ(flush(file), 0);
  EXPECT_LE(requests() - before, 20U);
  mDrive->release(file);
  std::string found = readFile(mDisk / "many");
  found.resize(expected.size());
  EXPECT_EQ(found, expected);
}

TEST_F(DriveTest, AHostThatComesBackFindsEveryWriteAndEveryQuestionWaiting) {
  connect();
  fs::create_directory(mDisk / "d");
  OpenFile& file = create("f", 0644, node("d"));
  const std::string block(100000, 'x');
  for (int i = 0; i < 40; ++i) {
    ASSERT_EQ(write(file, block, i * 100000), 0);
    if (i % 10 == 5) {
      mDisk.stop(SIGKILL);
      mDisk.serve();
    }
  }
  mDisk.stop(SIGKILL);
  std::thread back([this] {
    std::this_thread::sleep_for(200ms);
    mDisk.serve();
  });
  EXPECT_EQ(errnoOf(mDrive->rename(kRootNode, "d", kRootNode, "e", 0)), 0);
  back.join();
  EXPECT_EQ(flush(file), 0);
  mDrive->release(file);
  EXPECT_EQ(fs::file_size(mDisk / "e/f"), 4000000U);
  EXPECT_THAT(mDrive->finish(), IsEmpty());
}

TEST_F(DriveTest, ASmallFileThatShrankOverThereIsReadAsItIsNow) {
  for (const char* name : {"a", "b"}) writeFile(mDisk / name, "a longer text");
  connect();
  ASSERT_TRUE(mDrive->openDirectory(kRootNode));
  writeFile(mDisk / "b", "short");
  OpenFile& file = open(node("b"), O_RDONLY);
  EXPECT_EQ(read(file), "short");
  mDrive->release(file);
}

TEST_F(DriveTest, AHostThatIsGoneForGoodIsAnErrorWithinTheTimeLimit) {
  writeFile(mDisk / "f", "text");
  connectUncached(300ms);
  OpenFile& file = open(node("f"), O_RDWR);
  mDisk.signal(SIGSTOP);
  EXPECT_EQ(write(file, "TEXT"), 0);
  EXPECT_EQ(errnoOf(mDrive->sync(file)), EIO);
  EXPECT_FALSE(mDrive->lookup(kRootNode, "f"));
  mDisk.signal(SIGCONT);
  EXPECT_TRUE(zor::test::eventually([&] { return mDrive->lookup(kRootNode, "f").ok(); }));
  EXPECT_EQ(write(file, "more"), 0);
  EXPECT_EQ(flush(file), 0);
  mDrive->release(file);
  EXPECT_EQ(readFile(mDisk / "f"), "more");
  EXPECT_THAT(mDrive->finish(), ElementsAre("/f"));
}

}  // namespace
}  // namespace zor::client::test
