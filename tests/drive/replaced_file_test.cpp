// Files that are replaced over there while they are open here.
#include <fcntl.h>
#include <gmock/gmock.h>

#include "altered_disk.h"

namespace zor::client::test {
namespace {

namespace fs = std::filesystem;

class ReplacedFile : public AlteredDisk {
 protected:
  OpenFile& open(const std::string& name) {
    writeFile(mDisk / name, "mine");
    return *mDrive->open(node(name), O_RDWR)->file;
  }
  void replace(const std::string& name) {
    writeFile(mDisk / "other", "other text");
    fs::rename(mDisk / "other", mDisk / name);
  }
};

TEST_F(ReplacedFile, IsNeitherReadNorWrittenUnderItsName) {
  connect();
  OpenFile& reader = open("read");
  EXPECT_EQ(read(reader), "mine");
  replace("read");
  EXPECT_EQ(read(reader), "errno 116");
  EXPECT_EQ(lookup("read"), 0);
  mDrive->release(reader);

  // Once it is known, nothing goes there any more.
  OpenFile& writer = open("known");
  EXPECT_EQ(write(writer, "MINE"), 0);
  EXPECT_EQ(errnoOf(mDrive->flush(writer)), 0);
  replace("known");
  ASSERT_TRUE(mDrive->openDirectory(kRootNode));
  EXPECT_EQ(write(writer, "MINE"), ESTALE);
  EXPECT_EQ(errnoOf(mDrive->flush(writer)), 0);
  EXPECT_EQ(readFile(mDisk / "known"), "other text");
  mDrive->release(writer);

  // What was on its way is told.
  OpenFile& late = open("late");
  OpenFile& second = *mDrive->open(node("late"), O_RDWR)->file;
  EXPECT_EQ(write(late, "MINE"), 0);
  replace("late");
  EXPECT_EQ(errnoOf(mDrive->sync(late)), ESTALE);
  EXPECT_EQ(errnoOf(mDrive->flush(second)), ESTALE);
  EXPECT_EQ(write(late, "MORE"), ESTALE);
  mDrive->release(late);
  mDrive->release(second);
  EXPECT_THAT(mDrive->finish(), ::testing::ElementsAre("/late"));
}

TEST_F(ReplacedFile, IsNotOneThatOnlyGotAnotherNumber) {
  udisk_stat before{};
  before.st_mode = S_IFREG | 0644;
  before.st_ino = 7;
  udisk_stat after = before;
  after.st_ino = 8;
  udisk_stat changed = after;
  changed.st_size = 9;
  struct {
    bool lasting, written;
    const udisk_stat& now;
    bool fits;
  } const cases[] = {
      {true, false, before, true}, {true, false, after, false},    {true, true, changed, false},
      {false, false, after, true}, {false, false, changed, false}, {false, true, changed, true},
  };
  for (const auto& one : cases) {
    NodeTree tree(one.lasting);
    Entries::value_type& place = *tree.root().directory->entries.emplace("f", Entry{}).first;
    place.second.attributes = before;
    Node& node = tree.nodeAt(tree.root(), place);
    EXPECT_TRUE(tree.fits(place.second, one.now)) << "a file that is not open";
    node.file = std::make_unique<FileState>();
    node.file->ahead = one.written;
    EXPECT_EQ(tree.fits(place.second, one.now), one.fits) << &one - cases;
  }
}

}  // namespace
}  // namespace zor::client::test
