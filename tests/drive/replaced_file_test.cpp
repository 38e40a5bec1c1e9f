// Files that are replaced on the host while the client has them open.
#include <fcntl.h>
#include <gmock/gmock.h>

#include "scripted_host.h"

namespace zor::client::test {
namespace {

class ReplacedFile : public ScriptedDrive {
 protected:
  OpenFile& openNew(const std::string& name) {
    writeFile(mDisk / name, "mine");
    return *mDrive->open(node(name), O_RDWR)->file;
  }
  void replace(const std::string& name) {
    writeFile(mDisk / "other", "other text");
    fs::rename(mDisk / "other", mDisk / name);
  }
};

TEST_F(ReplacedFile, IsNeitherReadNorWrittenUnderItsName) {
  connectUncached();
  OpenFile& reader = openNew("read");
  EXPECT_EQ(read(reader), "mine");
  replace("read");
  EXPECT_EQ(read(reader), "errno 116");
  EXPECT_EQ(lookup("read"), 0);
  mDrive->release(reader);

  // Once it is known, nothing goes there any more.
  OpenFile& writer = openNew("known");
  EXPECT_EQ(write(writer, "MINE"), 0);
  EXPECT_EQ(errnoOf(mDrive->flush(writer)), 0);
  replace("known");
  ASSERT_TRUE(mDrive->openDirectory(kRootNode));
  EXPECT_EQ(write(writer, "MINE"), ESTALE);
  EXPECT_EQ(errnoOf(mDrive->flush(writer)), 0);
  EXPECT_EQ(readFile(mDisk / "known"), "other text");
  mDrive->release(writer);

  OpenFile& cut = openNew("cut");
  const NodeId old = node("cut");
  replace("cut");
  EXPECT_EQ(errnoOf(mDrive->setLength(old, 2)), ESTALE);
  EXPECT_EQ(readFile(mDisk / "cut"), "other text");
  mDrive->release(cut);

  // What was on its way is told.
  OpenFile& late = openNew("late");
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

TEST_F(ReplacedFile, HasMadeUpNumbersForItsOtherSpellings) {
  for (const bool same : {false, true}) {
    writeFile(mDisk / "notes", "text");
    connect({.attributeTimeout = 60s, .lastingInodes = false});
    const NodeId notes = node("notes");
    udisk_stat told = mDrive->attributes(notes)->attributes;
    ++told.st_ino;
    if (!same) ++told.st_size;
    mHost->alters = [told](Command command, const std::string& names, Buffer& reply) {
      if (command != Command::kGetFileAttr || !names.ends_with("/NOTES")) return;
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
