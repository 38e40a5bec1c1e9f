// What the drive asks the host for, and when: promises that the contents alone do not show.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <future>

#include "scripted_host.h"

namespace zor::client::test {
namespace {

using RequestsTest = ScriptedDrive;

TEST_F(RequestsTest, ACloseSynchronisesWhatWasWrittenUnlessToldNotTo) {
  for (const bool sync : {true, false}) {
    connect({.attributeTimeout = 60s, .syncOnClose = sync});
    OpenFile& file = create(sync ? "synced" : "unsynced");
    EXPECT_EQ(write(file, "text"), 0);
    EXPECT_EQ(flush(file), 0);
    EXPECT_EQ(mHost->count(Command::kFileFsync), sync ? 1 : 0);
    EXPECT_EQ(flush(file), 0);
    EXPECT_EQ(mHost->count(Command::kFileFsync), sync ? 1 : 0) << "nothing new to synchronise";
    mDrive->release(file);
  }
}

TEST_F(RequestsTest, WhileADirectoryIsRenamedNothingIsAskedForByItsOldName) {
  fs::create_directory(mDisk / "old");
  const std::string contents(4 << 20, 'r');
  for (const char* name : {"old/read", "old/written"}) writeFile(mDisk / name, contents);
  connect();
  const NodeId directory = node("old");
  OpenFile& reading = *mDrive->open(node("read", directory), O_RDONLY)->file;
  OpenFile& writing = *mDrive->open(node("written", directory), O_RDWR)->file;
  mHost->hold(Command::kSetRename);
  auto renamed = std::async(std::launch::async, [&] {
    return mDrive->rename(kRootNode, "old", kRootNode, "new", 0).ok();
  });
  mHost->await(Command::kSetRename);
  mHost->forget();
  auto read = std::async(std::launch::async,
                         [&] { return mDrive->read(reading, 1 << 20, 128 << 10).ok(); });
  auto written =
      std::async(std::launch::async, [&] { return write(writing, std::string(2 << 20, 'w')); });
  auto listed = std::async(std::launch::async, [&] { return mDrive->lookup(directory, "x").ok(); });
  EXPECT_EQ(read.wait_for(100ms), std::future_status::timeout);
  EXPECT_EQ(mHost->countNaming("/old/"), 0);
  mHost->goOn();
  EXPECT_TRUE(renamed.get());
  EXPECT_TRUE(read.get());
  EXPECT_EQ(written.get(), 0);
  EXPECT_TRUE(listed.get());
  EXPECT_EQ(flush(writing), 0);
  EXPECT_EQ(mHost->countNaming("/old/"), 0);
  EXPECT_GT(mHost->count(Command::kFileRead, "/new/read"), 0);
  EXPECT_GT(mHost->count(Command::kFileWrite, "/new/written"), 0);
  mDrive->release(reading);
  mDrive->release(writing);
  EXPECT_EQ(readFile(mDisk / "new/written").substr(0, 2 << 20), std::string(2 << 20, 'w'));
}

TEST_F(RequestsTest, ABatchOfSmallFilesIsSentBeforeItsDirectoryIsRenamed) {
  fs::create_directory(mDisk / "old");
  for (const char* name : {"a", "b", "c"}) writeFile(mDisk / ("old/" + std::string(name)), "text");
  connect();
  const NodeId directory = node("old");
  ASSERT_TRUE(mDrive->openDirectory(directory));
  std::promise<void> begun;
  std::promise<void> sent;
  mHost->refuses = [&](Command command, const std::string&) {
    if (command == Command::kSmallFileRead) {
      begun.set_value();
      sent.get_future().wait();  // the path is in the request, which is not on the link
    }
    return false;
  };
  OpenFile& first = open(node("a", directory), O_RDONLY);
  OpenFile& second = open(node("b", directory), O_RDONLY);
  EXPECT_EQ(read(first), "text");
  auto reading = std::async(std::launch::async, [&] { return read(second); });
  begun.get_future().wait();
  auto renaming = std::async(std::launch::async, [&] {
    return mDrive->rename(kRootNode, "old", kRootNode, "new", 0).ok();
  });
  EXPECT_EQ(renaming.wait_for(100ms), std::future_status::timeout);
  EXPECT_EQ(mHost->count(Command::kSetRename), 0);
  sent.set_value();
  EXPECT_EQ(reading.get(), "text");
  EXPECT_TRUE(renaming.get());
  EXPECT_EQ(mDrive->counters().smallFileHits, 1U);
  mDrive->release(first);
  mDrive->release(second);
}

TEST_F(RequestsTest, ACreationThatIsNotWaitedForIsReportedByTheCloseAndAtTheEnd) {
  connect();
  OpenFile& first = create("first");
  mDrive->release(first);
  mHost->refuse(Command::kFileCreate);
  OpenFile& second = create("second");
  EXPECT_NE(flush(second), 0);
  mDrive->release(second);
  EXPECT_THAT(mDrive->finish(), ::testing::ElementsAre("/second"));
}

TEST_F(RequestsTest, ADirectoryThatChangedJustNowIsListedAndAnOldOneChecked) {
  writeFile(mDisk / "file", "text");
  connect({.attributeTimeout = 0ms});
  ASSERT_TRUE(mDrive->openDirectory(kRootNode));
  ASSERT_TRUE(mDrive->openDirectory(kRootNode));
  EXPECT_EQ(mHost->count(Command::kDirRead), 2) << "a check compares whole seconds";
  const timespec past[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
  ::utimensat(AT_FDCWD, (mDisk / "file").c_str(), past, 0);
  ::utimensat(AT_FDCWD, mDisk.root().c_str(), past, 0);
  ASSERT_TRUE(mDrive->openDirectory(kRootNode));
  mHost->forget();
  ASSERT_TRUE(mDrive->openDirectory(kRootNode));
  EXPECT_EQ(mHost->count(Command::kDirRead), 0);
  EXPECT_EQ(mHost->count(Command::kCheckDir), 1);
}

}  // namespace
}  // namespace zor::client::test
