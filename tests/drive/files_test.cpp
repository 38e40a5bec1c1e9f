// What programs see of files.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <future>

#include "scripted_host.h"

namespace zor::client::test {
namespace {

using FilesTest = ScriptedDrive;

TEST_F(FilesTest, ALostWriteIsReportedAtEveryCloseUntilAWriteOrSyncReportsIt) {
  for (const char* name : {"synced", "written"}) {
    writeFile(mDisk / name, "");
    connect();
    OpenFile& file = open(node(name), O_RDWR);
    OpenFile& other = open(node(name), O_RDWR);
    EXPECT_EQ(write(file, "text"), 0);
    fs::remove(mDisk / name);
    EXPECT_EQ(flush(file), EIO);
    EXPECT_EQ(flush(file), EIO) << "the first may have been the one of a child process";
    if (name == std::string("synced")) {
      EXPECT_FALSE(mDrive->sync(file));
    } else {
      EXPECT_EQ(write(file, "again"), EIO);
    }
    EXPECT_EQ(flush(file), 0);
    EXPECT_EQ(flush(other), EIO) << "it has its own error";
    mDrive->release(file);
    mDrive->release(other);
  }
}

TEST_F(FilesTest, AnErrorThatTheKernelTurnsIntoAShortCountIsToldAgain) {
  const std::string large(128 << 10, 'x');
  connect();
  OpenFile& file = create("file");
  EXPECT_EQ(flush(file), 0);
  fs::remove(mDisk / "file");
  EXPECT_EQ(write(file, large), 0);
  EXPECT_EQ(flush(file), EIO);
  EXPECT_EQ(write(file, large, 128 << 10), EIO) << "the rest of one write(2)";
  EXPECT_EQ(flush(file), EIO);
  EXPECT_EQ(write(file, large, 128 << 10), EIO) << "tried again";
  EXPECT_EQ(flush(file), 0);
  mDrive->release(file);
}

TEST_F(FilesTest, AFileThatLostDataIsNamedAtOnceAndOnce) {
  std::promise<std::string> named;
  connect({.attributeTimeout = 60s, .lost = [&](auto& path) { named.set_value(path); }});
  OpenFile& file = create("lost");
  EXPECT_EQ(flush(file), 0);
  fs::remove(mDisk / "lost");
  EXPECT_EQ(write(file, "text"), 0);
  EXPECT_FALSE(mDrive->sync(file));
  write(file, "again");
  static_cast<void>(mDrive->sync(file));
  std::future<std::string> name = named.get_future();
  ASSERT_EQ(name.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(name.get(), "/lost");
  EXPECT_THAT(mDrive->lost(), ::testing::ElementsAre("/lost"));
  mDrive->release(file);
}

TEST_F(FilesTest, AnAppendGoesBehindWhatOthersAppendedBeforeTheFileWasOpened) {
  writeFile(mDisk / "log", "");
  connect();
  std::string expected;
  for (int i = 0; i < 3; ++i) {
    std::ofstream(mDisk / "log", std::ios::app) << "other\n";
    OpenFile& file = open(node("log"), O_WRONLY | O_APPEND);
    for (const char* line : {"one\n", "two\n"}) {
      mHost->forget();
      EXPECT_TRUE(mDrive->write(file, 0, std::as_bytes(std::span(std::string_view(line))), true));
      EXPECT_EQ(mHost->count(Command::kGetFileAttr, "/log"), line[0] == 'o' ? 1 : 0);
    }
    EXPECT_EQ(flush(file), 0);
    mDrive->release(file);
    expected += "other\none\ntwo\n";
  }
  EXPECT_EQ(readFile(mDisk / "log"), expected);
}

TEST_F(FilesTest, ANewFileIsShownAsItIsOnTheDisk) {
  connect();
  mDrive->release(create("other", 0600));
  ASSERT_TRUE(mDrive->openDirectory(kRootNode));
  const auto isShown = [&](const std::string& name) {
    const auto listing = mDrive->openDirectory(kRootNode);
    const auto told = mDrive->attributes(node(name));
    struct stat status {};
    EXPECT_EQ(::stat((mDisk / name).c_str(), &status), 0);
    const auto isIt = [&](const DirectoryItem& item) {
      return item.name == name && item.attributes.st_ino == status.st_ino;
    };
    if (!told || !std::any_of((*listing)->begin(), (*listing)->end(), isIt)) return false;
    const udisk_stat& is = told->attributes;
    return is.st_ino == status.st_ino && is.st_mode == status.st_mode &&
           is.st_mtim.tv_nsec == status.st_mtim.tv_nsec && is.st_size == status.st_size;
  };
  OpenFile& file = create("young", 0640);
  EXPECT_TRUE(isShown("young"));
  EXPECT_EQ(write(file, "text"), 0);
  EXPECT_TRUE(isShown("young")) << "as it will be after the close";
  EXPECT_EQ(flush(file), 0);
  EXPECT_TRUE(isShown("young"));
  mDrive->release(file);
  EXPECT_TRUE(mDrive->link(node("young"), kRootNode, "second"));
  EXPECT_TRUE(isShown("young"));
  EXPECT_TRUE(isShown("second"));
}

TEST_F(FilesTest, ALengthThatTheKernelNeedsIsKnownWithoutWaiting) {
  connect();
  OpenFile& file = create("file");
  EXPECT_EQ(flush(file), 0);
  EXPECT_EQ(write(file, "text"), 0);
  mHost->forget();
  EXPECT_EQ(mDrive->attributes(node("file"), false)->attributes.st_size, 4);
  EXPECT_EQ(mHost->count(Command::kGetFileAttr), 0);
  mDrive->release(file);
}

TEST_F(FilesTest, WhatWasRemovedCanBeAskedAboutAndHasNoLinks) {
  for (const char* name : {"open", "two", "replaced", "replacing"}) writeFile(mDisk / name, "text");
  fs::create_directory(mDisk / "directory");
  fs::create_hard_link(mDisk / "two", mDisk / "three");
  connect();
  const NodeId opened = node("open");
  const NodeId two = node("two");
  const NodeId replaced = node("replaced");
  const NodeId directory = node("directory");
  const auto links = [&](NodeId id) {
    const auto told = mDrive->attributes(id);
    return told ? std::to_string(told->attributes.st_nlink)
                : "errno " + std::to_string(told.error().value);
  };
  OpenFile& file = open(opened, O_RDONLY);
  EXPECT_TRUE(mDrive->unlink(kRootNode, "open"));
  EXPECT_TRUE(mDrive->unlink(kRootNode, "two"));
  EXPECT_TRUE(mDrive->rename(kRootNode, "replacing", kRootNode, "replaced", 0));
  EXPECT_TRUE(mDrive->removeDirectory(kRootNode, "directory"));
  EXPECT_EQ(links(opened), "0");
  EXPECT_EQ(links(two), "1");
  EXPECT_EQ(links(replaced), "0");
  EXPECT_EQ(links(directory), "0");
  EXPECT_EQ(links(node("replaced")), "1");
  mDrive->release(file);
  EXPECT_EQ(links(opened), "0");
}

TEST_F(FilesTest, ARemovedFileIsNotOpenedAgainBehindItsLastClose) {
  writeFile(mDisk / "name", "text");
  connect();
  const NodeId id = node("name");
  OpenFile& file = open(id, O_RDONLY);
  EXPECT_TRUE(mDrive->unlink(kRootNode, "name"));
  OpenFile& again = open(id, O_RDONLY);
  mDrive->release(file);
  mHost->hold(Command::kSetUnlink);
  auto closing = std::async(std::launch::async, [&] { mDrive->release(again); });
  mHost->await(Command::kSetUnlink);
  EXPECT_EQ(errnoOf(mDrive->open(id, O_RDONLY)), ESTALE);
  mHost->goOn();
  closing.get();
}

TEST_F(FilesTest, OtherSpellingsAreFollowedWhereTheDiskTakesThem) {
  for (const bool anyCase : {false, true}) {
    for (const char* name : {"notes", "other"}) writeFile(mDisk / name, "text");
    connect();
    ASSERT_TRUE(mDrive->openDirectory(kRootNode));
    // Plays a disk that takes both for one file.
    if (anyCase) fs::create_hard_link(mDisk / "notes", mDisk / "NOTES");
    EXPECT_EQ(node("missing"), 0U);
    mHost->forget();
    EXPECT_EQ(node("Other"), anyCase ? node("other") : 0U);
    EXPECT_EQ(node("still missing"), 0U);
    EXPECT_EQ(mHost->countNaming("/"), 0);
    if (!anyCase) continue;
    mDrive->release(*mDrive->create(kRootNode, "OTHER", 0644, O_CREAT | O_RDWR)->open.file);
    EXPECT_EQ((*mDrive->openDirectory(kRootNode))->size(), 2U);
    EXPECT_TRUE(mDrive->rename(kRootNode, "Other", kRootNode, "OTHER", 0)) << "a new spelling";
    EXPECT_NE(node("OTHER"), 0U);
    EXPECT_TRUE(mDrive->unlink(kRootNode, "other"));
    EXPECT_FALSE(fs::exists(mDisk / "OTHER"));
    EXPECT_EQ(node("OTHER"), 0U);
  }
}

TEST_F(FilesTest, WhatTheHostCannotWriteIsRefusedWhenItIsOpened) {
  for (const char* name : {"a", "b", "c", "d"}) {
    writeFile(mDisk / name, "text");
    fs::permissions(mDisk / name, fs::perms(name[0] < 'c' ? 0644 : 0444));
  }
  connect();
  mHost->forget();
  EXPECT_EQ(tryOpen("a", O_WRONLY), 0);
  EXPECT_EQ(tryOpen("b", O_RDWR), 0);
  EXPECT_EQ(mHost->count(Command::kFileFsync), 1) << "once for files of a kind";
  mHost->refuse(Command::kFileFsync);  // which is how the host is asked
  EXPECT_EQ(tryOpen("c", O_WRONLY), EACCES);
  EXPECT_EQ(tryOpen("c", O_RDONLY), 0);
  EXPECT_EQ(mDrive->create(kRootNode, "c", 0644, O_CREAT | O_WRONLY).error().value, EACCES);
  EXPECT_EQ(tryOpen("b", O_WRONLY), 0);
  mHost->refuse(Command{});
  EXPECT_EQ(tryOpen("c", O_WRONLY), 0);
  mDrive->forget(node("d"), 1);
}

TEST_F(FilesTest, EverybodyMayWriteToWhatWasMadeSo) {
  connect();
  mDrive->release(create("file", 0666));
  ASSERT_TRUE(mDrive->makeDirectory(kRootNode, "directory", 0777));
  EXPECT_EQ(fs::status(mDisk / "file").permissions(), fs::perms(0666));
  EXPECT_EQ(fs::status(mDisk / "directory").permissions(), fs::perms(0777));
}

TEST_F(FilesTest, ADirectoryThatTakesNoMoreFilesRefusesThemAtOnce) {
  connect();
  mDrive->release(create("first"));
  mHost->refuse(Command::kFileCreate);
  // Nothing tells that this one will be refused, so the close does.
  const auto second = mDrive->create(kRootNode, "second", 0644, O_CREAT | O_WRONLY);
  ASSERT_TRUE(second);
  mDrive->release(*second->open.file);
  fs::permissions(mDisk.root(), fs::perms(0555));
  const auto third = mDrive->create(kRootNode, "third", 0644, O_CREAT | O_WRONLY);
  fs::permissions(mDisk.root(), fs::perms(0755));
  ASSERT_FALSE(third);
  EXPECT_EQ(third.error().value, EACCES);
}

TEST_F(FilesTest, WhatIsNotUsedAnyMoreIsForgottenAndLearntAgain) {
  fs::create_directory(mDisk / "d");
  for (int i = 0; i < 300; ++i) writeFile(mDisk / ("d/" + std::to_string(i)), "text");
  connect({.attributeTimeout = 1s});
  const NodeId directory = node("d");
  const NodeId used = node("7", directory);
  for (int i = 0; i < 300; ++i) mDrive->forget(node(std::to_string(i), directory), 1);
  EXPECT_GT(mDrive->counters().knownNames, 300U);
  mDrive->dropUnused(Clock::now());
  EXPECT_GT(mDrive->counters().knownNames, 300U) << "still of use";
  mDrive->dropUnused(Clock::now() + 1min);
  EXPECT_LT(mDrive->counters().knownNames, 10U);
  EXPECT_EQ(node("7", directory), used);
  EXPECT_EQ((*mDrive->openDirectory(directory))->size(), 300U);
}

}  // namespace
}  // namespace zor::client::test
