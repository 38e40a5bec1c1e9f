// What must not be taken for files that are gone, or for another disk.
#include <fcntl.h>
#include <gmock/gmock.h>

#include "scripted_host.h"

namespace zor::client::test {
namespace {

using FailingDisk = ScriptedDrive;

TEST_F(FailingDisk, IsAnErrorAndNeverADiskWithoutFiles) {
  fs::create_directories(mDisk / "d/e");
  writeFile(mDisk / "d/f", "text");
  writeFile(mDisk / "d/e/g", "text");
  connectUncached();
  const NodeId d = node("d");
  const NodeId e = node("e", d);
  const NodeId f = node("f", d);
  ASSERT_NE(node("g", e), 0U);
  OpenFile& file = *mDrive->open(f, O_RDWR)->file;
  fs::rename(mDisk.root(), mDisk.beside("pulled"));
  EXPECT_EQ(lookup("d"), EIO);
  EXPECT_EQ(lookup("f", d), EIO);
  EXPECT_EQ(lookup("never", d), EIO);
  EXPECT_EQ(errnoOf(mDrive->attributes(f)), EIO);
  EXPECT_EQ(errnoOf(mDrive->attributes(kRootNode)), EIO);
  for (const NodeId directory : {kRootNode, d, e}) {
    EXPECT_EQ(errnoOf(mDrive->openDirectory(directory)), EIO);
  }
  EXPECT_EQ(errnoOf(mDrive->create(d, "new", 0644, O_CREAT | O_WRONLY)), EIO);
  EXPECT_EQ(errnoOf(mDrive->makeDirectory(d, "new", 0755)), EIO);
  EXPECT_EQ(errnoOf(mDrive->link(f, d, "new")), EIO);
  EXPECT_EQ(errnoOf(mDrive->unlink(e, "g")), EIO);
  EXPECT_EQ(errnoOf(mDrive->removeDirectory(d, "e")), EIO);
  EXPECT_EQ(errnoOf(mDrive->rename(e, "g", e, "h", 0)), EIO);
  EXPECT_EQ(errnoOf(mDrive->rename(e, "g", e, "h", RENAME_NOREPLACE)), EIO);
  EXPECT_EQ(errnoOf(mDrive->setMode(f, 0600)), EIO);
  EXPECT_EQ(errnoOf(mDrive->statfs()), EIO);
  EXPECT_EQ(read(file), "errno 5");
  fs::rename(mDisk.beside("pulled"), mDisk.root());
  // All of it is there again, under the same nodes.
  EXPECT_EQ(errnoOf(mDrive->statfs()), 0);
  EXPECT_EQ(node("f", d), f);
  EXPECT_EQ(node("e", d), e);
  EXPECT_EQ(read(file), "text");
  EXPECT_EQ(write(file, "TEXT"), 0);
  EXPECT_EQ(errnoOf(mDrive->flush(file)), 0);
  mDrive->release(file);
  // What is gone is gone all the same, with its directory, too.
  fs::remove(mDisk / "d/f");
  EXPECT_EQ(lookup("f", d), ENOENT);
  EXPECT_EQ(errnoOf(mDrive->attributes(f)), ESTALE);
  fs::remove_all(mDisk / "d");
  EXPECT_EQ(lookup("g", e), ESTALE);
  EXPECT_EQ(lookup("d"), ENOENT);
}

TEST_F(FailingDisk, AFileThatCannotBeReadIsNotGoneWhileItIsListed) {
  for (const char* name : {"bad", "good", "gone"}) writeFile(mDisk / name, "text");
  connectUncached();
  const NodeId bad = node("bad");
  const NodeId gone = node("gone");
  mHost->refuses = [](Command command, const std::string& names) {
    return command == Command::kGetFileAttr && names.ends_with("/bad");
  };
  fs::remove(mDisk / "gone");
  EXPECT_EQ(errnoOf(mDrive->setMode(bad, 0600)), 0);  // asks for the attributes behind it
  EXPECT_NE(lookup("bad"), ENOENT);
  EXPECT_NE(errnoOf(mDrive->attributes(bad)), ESTALE);
  EXPECT_EQ(errnoOf(mDrive->attributes(gone)), ESTALE);
  // Nor when the directory cannot be listed any more.
  mHost->refuses = [](Command command, const std::string& names) {
    return (command == Command::kGetFileAttr && !names.ends_with('/')) ||
           command == Command::kDirRead || command == Command::kCheckDir;
  };
  EXPECT_EQ(lookup("bad"), EIO);
  EXPECT_EQ(errnoOf(mDrive->attributes(bad)), EIO);
  EXPECT_EQ(errnoOf(mDrive->openDirectory(kRootNode)), EIO);
}

TEST_F(FailingDisk, PermissionsAreTheReasonWhereNothingCanBeQueried) {
  fs::create_directory(mDisk / "closed");
  for (const char* name : {"unreadable", "closed/f"}) writeFile(mDisk / name, "text");
  fs::permissions(mDisk / "unreadable", fs::perms(0200));
  fs::permissions(mDisk / "closed", fs::perms(0600));
  connectUncached();
  const NodeId closed = node("closed");
  const NodeId file = node("unreadable");
  mHost->refuses = [](Command command, const std::string& names) {
    return (command == Command::kGetFileAttr && names.find("/closed/") != names.npos) ||
           command == Command::kFileRead || command == Command::kCheckDir;
  };
  // The host of this test may be root's, whose listing has the attributes.
  mHost->alters = [](Command command, const std::string& names, Buffer& reply) {
    if (command != Command::kDirRead || !names.ends_with("/closed")) return;
    constexpr std::size_t kAttributes = wire::wireSize<udisk_stat>();
    const std::string text(reinterpret_cast<const char*>(reply.data()), reply.size());
    const std::size_t at = text.find(std::string_view("\2\0f", 3));
    ASSERT_GT(at, kAttributes);
    std::fill_n(reply.data() + at - kAttributes, kAttributes, std::byte{0});
  };
  EXPECT_EQ(errnoOf(mDrive->open(file, O_RDONLY)), EACCES);
  EXPECT_EQ(errnoOf(mDrive->open(file, O_WRONLY)), 0);
  EXPECT_EQ(lookup("f", closed), EACCES);
}

}  // namespace
}  // namespace zor::client::test
