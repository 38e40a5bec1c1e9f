// Files that are replaced over there while they are open here.
#include <fcntl.h>
#include <gmock/gmock.h>

#include "altered_disk.h"
#include "client/disk_identity.h"

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

  OpenFile& cut = open("cut");
  const NodeId old = node("cut");
  replace("cut");
  EXPECT_EQ(errnoOf(mDrive->setLength(old, 2)), ESTALE);
  EXPECT_EQ(readFile(mDisk / "cut"), "other text");
  mDrive->release(cut);

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
  before.st_mtim.tv_sec = 90;
  udisk_stat after = before;
  after.st_ino = 8;
  udisk_stat changed = after;
  changed.st_size = 9;
  changed.st_mtim.tv_sec = 88;  // rounded
  udisk_stat older = after;
  older.st_mtim.tv_sec = 80;
  struct {
    bool lasting;
    const udisk_stat& now;
    bool fits;
  } const cases[] = {{true, before, true},
                     {true, after, false},
                     {false, after, true},
                     {false, changed, true},
                     {false, older, false}};
  for (const auto& one : cases) {
    NodeTree tree(one.lasting);
    Entries::value_type& place = *tree.root().directory->entries.emplace("f", Entry{}).first;
    place.second.attributes = before;
    Node& node = tree.nodeAt(tree.root(), place);
    EXPECT_TRUE(tree.fits(place.second, one.now)) << "a file that is not open";
    node.file = std::make_unique<FileState>();
    EXPECT_EQ(tree.fits(place.second, one.now), one.fits) << &one - cases;
  }
  udisk_statvfs fuse{};
  fuse.f_files = 9;
  fuse.f_bfree = fuse.f_ffree = 5;
  fuse.f_namemax = 255;
  EXPECT_TRUE(makesUpInodes(fuse));
  fuse.f_ffree = 6;
  EXPECT_FALSE(makesUpInodes(fuse));
}

TEST_F(ReplacedFile, HasMadeUpNumbersForItsOtherSpellings) {
  for (const bool same : {false, true}) {
    writeFile(mDisk / "notes", "text");
    mAttributeTimeout = std::chrono::seconds(60);
    mLastingInodes = false;
    connect();
    const NodeId notes = node("notes");
    udisk_stat told = mDrive->attributes(notes)->attributes;
    ++told.st_ino;
    if (!same) ++told.st_size;
    mTransport->alters = [told](wire::Command command, const std::string& names, Buffer& reply) {
      if (command != wire::Command::kGetFileAttr || !names.ends_with("/NOTES")) return;
      reply.data()[2] = std::byte{wire::wireSize<udisk_stat>()};
      reply.append(wire::encoded(told));
    };
    EXPECT_EQ(node("missing"), 0U);
    EXPECT_EQ(node("Notes"), same ? notes : 0U);
    EXPECT_EQ(mDrive->lookup(kRootNode, "notes")->hasSpellings, same);
    if (!same) continue;
    EXPECT_EQ(errnoOf(mDrive->makeDirectory(kRootNode, "noteS", 0755)), EEXIST);
    EXPECT_EQ((*mDrive->openDirectory(kRootNode))->size(), 1U);
  }
}

}  // namespace
}  // namespace zor::client::test
