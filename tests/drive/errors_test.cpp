// What programs are told when the disk refuses something.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "altered_disk.h"

namespace zor::remote::test {
namespace {

namespace fs = std::filesystem;
using ::testing::UnorderedElementsAre;
using wire::Command;

class DriveErrors : public AlteredDisk {
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
  connect();
  const auto made = mDrive->makeDirectory(kRootNode, "a\\b", 0755);
  ASSERT_TRUE(made);
  ASSERT_TRUE(mDrive->makeDirectory(made->node, "inside", 0755));
  const auto file = mDrive->create(made->node, "f", 0640, O_CREAT | O_WRONLY);
  ASSERT_TRUE(file);
  EXPECT_EQ(write(*file->open.file, "text"), 0);
  EXPECT_EQ(errnoOf(mDrive->flush(*file->open.file)), 0);
  mDrive->release(*file->open.file);
  EXPECT_EQ(lookup("inside", made->node), 0);
  EXPECT_EQ(readFile(mDisk / "a\\b/f"), "text");
  EXPECT_THAT(all(), UnorderedElementsAre("a\\b", "a\\b/inside", "a\\b/f"));
  // As on a disk that does not take such names.
  mTransport->refuses = [](Command command, const std::string&) {
    return command == Command::kSetRename;
  };
  EXPECT_EQ(errnoOf(mDrive->makeDirectory(kRootNode, "c\\d", 0755)), EACCES);
  EXPECT_EQ(errnoOf(mDrive->create(kRootNode, "c\\d", 0644, O_CREAT | O_RDWR)), EACCES);
  EXPECT_THAT(all(), UnorderedElementsAre("a\\b", "a\\b/inside", "a\\b/f"));
  EXPECT_EQ((*mDrive->openDirectory(kRootNode))->size(), 1U);
}

}  // namespace
}  // namespace zor::remote::test
