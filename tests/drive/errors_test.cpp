// The errors that programs see when the disk refuses something.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "scripted_host.h"

namespace zor::client::test {
namespace {

using ::testing::UnorderedElementsAre;

class DriveErrors : public ScriptedDrive {
 protected:
  std::vector<std::string> all() {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(mDisk.root())) {
      names.push_back(entry.path().lexically_relative(mDisk.root()));
    }
    return names;
  }
};

TEST_F(DriveErrors, BackslashesMakeNothingElsewhereAndLeaveNothingBehind) {
  connectUncached();
  const auto made = mDrive->makeDirectory(kRootNode, "a\\b", 0755);
  ASSERT_TRUE(made);
  ASSERT_TRUE(mDrive->makeDirectory(made->node, "inside", 0755));
  const auto file = mDrive->create(made->node, "f", 0640, O_CREAT | O_WRONLY);
  ASSERT_TRUE(file);
  EXPECT_EQ(write(*file->open.file, "text"), 0);
  EXPECT_EQ(flush(*file->open.file), 0);
  mDrive->release(*file->open.file);
  EXPECT_EQ(lookup("inside", made->node), 0);
  EXPECT_EQ(readFile(mDisk / "a\\b/f"), "text");
  EXPECT_THAT(all(), UnorderedElementsAre("a\\b", "a\\b/inside", "a\\b/f"));
  // As on a disk that does not take such names.
  mHost->refuses = [](Command command, const std::string&) {
    return command == Command::kSetRename;
  };
  EXPECT_EQ(errnoOf(mDrive->makeDirectory(kRootNode, "c\\d", 0755)), EACCES);
  EXPECT_EQ(errnoOf(mDrive->create(kRootNode, "c\\d", 0644, O_CREAT | O_RDWR)), EACCES);
  EXPECT_THAT(all(), UnorderedElementsAre("a\\b", "a\\b/inside", "a\\b/f"));
  EXPECT_EQ((*mDrive->openDirectory(kRootNode))->size(), 1U);
}

struct Space {
  const char* what;
  std::uint64_t free;  ///< blocks of 4096 bytes
  std::int64_t offset;
  std::size_t bytes;
  int error;
};

udisk_statvfs ext(std::uint64_t free) {
  udisk_statvfs disk{};
  disk.f_bsize = 4096;
  disk.f_blocks = 1 << 20;
  disk.f_bavail = free;
  disk.f_files = disk.f_favail = 9;
  disk.f_namemax = 255;
  return disk;
}

udisk_statvfs fat(std::uint64_t free) {
  udisk_statvfs disk = ext(free);
  disk.f_blocks <<= 2;
  disk.f_files = disk.f_favail = 0;
  disk.f_namemax = 1530;
  return disk;
}

TEST_F(DriveErrors, TheErrorOfAWriteFollowsFromTheSpaceThatItNeeded) {
  constexpr std::int64_t kLimit = std::int64_t{1} << 32;
  const std::pair<udisk_statvfs (*)(std::uint64_t), std::vector<Space>> cases[] = {
      {ext,
       {{"there is enough", 9000, 0, 1 << 17, EIO},
        {"it is almost full", 30, 0, 1 << 17, ENOSPC},
        {"there is enough for a small one", 30, 0, 4096, EIO},
        {"the last block is not enough", 1, 0, 4096, ENOSPC},
        {"beyond all files", 9000, std::int64_t{1} << 50, 1, EFBIG}}},
      {fat,
       {{"the last byte of the largest file", 2 << 20, kLimit - 2, 1, EIO},
        {"the byte behind it", 2 << 20, kLimit - 2, 2, EFBIG},
        {"a hole takes space", 1000, kLimit - 2, 1, ENOSPC}}},
  };
  connectUncached();
  udisk_statvfs told{};
  mHost->refuses = [](Command command, const std::string&) {
    return command == Command::kFileWrite;
  };
  mHost->alters = [&](Command command, const std::string&, Buffer& reply) {
    if (command != Command::kGetStatvfs) return;
    reply.resize(reply.size() - wire::wireSize<udisk_statvfs>());
    reply.append(wire::encoded(told));
  };
  for (const auto& [disk, spaces] : cases) {
    for (const Space& one : spaces) {
      told = disk(one.free);
      writeFile(mDisk / "f", "");
      OpenFile& file = *mDrive->open(node("f"), O_RDWR)->file;
      EXPECT_EQ(write(file, std::string(one.bytes, 'x'), one.offset), 0);
      EXPECT_EQ(flush(file), one.error) << one.what;
      mDrive->release(file);
    }
  }
}

TEST_F(DriveErrors, NamesAndFileSystemsThatDoNotFitHaveErrorsOfTheirOwn) {
  connectUncached();
  const std::string name(250, 'n');
  NodeId directory = kRootNode;
  int failed = 0;
  for (int depth = 0; failed == 0 && depth < 20; ++depth) {
    const auto made = mDrive->makeDirectory(directory, name, 0755);
    failed = errnoOf(made);
    if (made) directory = made->node;
  }
  EXPECT_EQ(failed, ENAMETOOLONG);
  EXPECT_EQ(lookup(name, directory), ENAMETOOLONG);
  EXPECT_EQ(errnoOf(mDrive->create(directory, name, 0644, O_CREAT | O_RDWR)), ENAMETOOLONG);
  fs::create_directory(mDisk / "below");
  writeFile(mDisk / "f", "");
  const NodeId f = node("f");
  const NodeId below = node("below");
  mHost->refuses = [](Command command, const std::string&) {
    return command == Command::kSetRename || command == Command::kSetLink ||
           command == Command::kMakeDir;
  };
  mHost->alters = [](Command command, const std::string& names, Buffer& reply) {
    if (command == Command::kGetStatvfs) reply.data()[reply.size() - 32] = std::byte{143};
    if (command == Command::kGetFileAttr && names.ends_with("/below")) {
      reply.data()[4 + 6] ^= std::byte{1};
    }
  };
  EXPECT_EQ(errnoOf(mDrive->rename(kRootNode, "f", below, "f", 0)), EXDEV);
  EXPECT_EQ(errnoOf(mDrive->link(f, below, "f")), EXDEV);
  EXPECT_EQ(errnoOf(mDrive->rename(kRootNode, "f", kRootNode, "g", 0)), EACCES);
  EXPECT_EQ(errnoOf(mDrive->makeDirectory(kRootNode, std::string(144, 'n'), 0755)), ENAMETOOLONG);
}

}  // namespace
}  // namespace zor::client::test
