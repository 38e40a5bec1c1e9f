// Every command's request and reply, byte for byte.
#include "disk_fixture.h"

namespace zor::test {
namespace {

TEST_F(DiskTest, GoldenFiles) {
  converse(R"(
    103 06000000 42010000 a4010000 eeeeeeee '/dir/f' | 06000000 42010000 a4010000 ..000000 '/dir/f';
    103 04000000 00000000 ff010000 00000000 '/dir'   | 04000000 00000000 ff010000 ffffffff '/dir';
    106 0200000000000000 04000000 aabbccdd 01000000 0600 0707 '/dir/f' 'wxyz' |
        0200000000000000 04000000 aabbccdd 01000000 0600 0707 '/dir/f';
    106 ff00000000000000 1e000000 aabbccdd 00000000 0600 0000 '/dir/f'
        0000000000000000 04000000 'abcd' 0a00000000000000 02000000 'ef' |
        ff00000000000000 1e000000 aabbccdd 00000000 0600 0000 '/dir/f';
    106 0000000000000000 01000000 00000000 01000000 0200 0000 '/g' 'x' |
        0000000000000000 00000000 00000000 01000000 0200 0000 '/g';
    106 0b00000000000000 01000000 00000000 01000000 0600 0001 '/dir/f' 'F' | none;
    105 0100000000000000 11111111 05000000 06000000 22222222 '/dir/f' |
        0100000000000000 11111111 05000000 06000000 22222222 '/dir/f' 'bcdyz';
    105 0a00000000000000 11111111 64000000 06000000 22222222 '/dir/f' |
        0a00000000000000 11111111 02000000 06000000 22222222 '/dir/f' 'eF';
    105 0c00000000000000 11111111 64000000 06000000 22222222 '/dir/f' |
        0c00000000000000 11111111 00000000 06000000 22222222 '/dir/f';
    123 03000000 0100000000000000 11111111 02000000 06000000 22222222 '/dir/f'
                 0000000000000000 00000000 64000000 02000000 00000000 '/g'
                 0800000000000000 00000000 64000000 06000000 00000000 '/dir/f' 'left over' |
        03000000 0100000000000000 00000000 02000000 06000000 00000000 '/dir/f' 'bc'
                 0000000000000000 00000000 00000000 02000000 00000000 '/g'
                 0800000000000000 00000000 04000000 06000000 00000000 '/dir/f' 0000 'eF';
    123 00000000 | =;)");
}

TEST_F(DiskTest, GoldenAttributesAndHandles) {
  const std::string attributes(240, '.'), statistics(224, '.');
  converse("102 0b00 eeee '/inside.txt' | 0b00 7800 '/inside.txt' " + attributes + ";" +
           "113 02000000 eeeeeeee '/x'  | 02000000 70000000 '/x' " + statistics + ";" + R"(
    102 0200 7800 '/g'    | 0200 0000 '/g';
    102 0300 0000 '/i' 00 | none;
    108 ff00000000000000 fffffffe 0200 0300 '/x' 'abc'  | 0000000000000000 00000000 0200 0300 'abc';
    108 0000000000000000 00000000 0300 0000 '/' 00 'x'  | 0000000000000000 00000000 0300 0000;
    108 0000000000000000 00000000 0200 0200 '/x' 'a' 00 | none;
    109 0400000000000000 0b000000 eeeeeeee '/inside.txt' |
        0400000000000000 0b000000 00000000 '/inside.txt';
    109 0400000000000000 02000000 00000000 '/g'  | 0400000000000000 02000000 ffffffff '/g';
    110 0b000000 cafebabe eeeeeeee '/inside.txt' | 0b000000 cafebabe 00000000 '/inside.txt';
    110 02000000 cafebabe eeeeeeee '/g'          | 02000000 cafebabe ffffffff '/g';
    111 eeeeeeee 0b00 8001 '/inside.txt'         | 00000000 0b00 8001 '/inside.txt';
    111 eeeeeeee 0200 8001 '/g'                  | ffffffff 0200 8001 '/g';
    112 0b000000 ffffffff ffffffff eeeeeeee '/inside.txt' |
        0b000000 ffffffff ffffffff 00000000 '/inside.txt';
    112 02000000 01000000 02000000 eeeeeeee '/g' | 02000000 01000000 02000000 ffffffff '/g';
    119 02000000 fdffffff '/g' 'more'   | =;
    120 0b000000 03000000 '/inside.txt' | =;
    120 02000000 03000000 '/g'          | =;)");
  EXPECT_EQ(contentsOf(disk + "/inside.txt"), "0123");
  EXPECT_EQ(lstatOf(disk + "/inside.txt").st_mode & 07777, 0600U);
}

TEST_F(DiskTest, GoldenNames) {
  // A name ends at its first zero byte, and what exists already is no failure to make_dir.
  converse(R"(
    114 eeeeeeee 0600 ed01 '/a/b/c'   | 00000000 0600 ed01 '/a/b/c';
    114 eeeeeeee 0600 ed01 '/a/b/c'   | 00000000 0600 ed01 '/a/b/c';
    114 eeeeeeee 0600 ed01 '/a\d\e'   | 00000000 0600 ed01 '/a\d\e';
    114 00000000 0500 ed01 '/z' 00 'yx' | 00000000 0500 ed01 '/z' 000000;
    114 00000000 0800 ed01 '/spare/x' | ffffffff 0800 ed01 '/spare/x';
    115 0600 eeee '/a/b/c'            | 0600 0000 '/a/b/c';
    115 0200 0000 '/a'                | 0200 ffff '/a';
    116 eeeeeeee 0600 0300 '/spare' '/ln' | 00000000 0600 0300 '/spare' '/ln';
    116 eeeeeeee 0200 0300 '/g' '/l2'     | ffffffff 0200 0300 '/g' '/l2';
    118 eeeeeeee 0300 0400 '/ln' '/a/l'   | 00000000 0300 0400 '/ln' '/a/l';
    118 eeeeeeee 0300 0400 '/ln' '/a/l'   | ffffffff 0300 0400 '/ln' '/a/l';
    117 0400 eeee '/a/l'              | 0400 0000 '/a/l';
    117 0400 0000 '/a/l'              | 0400 ffff '/a/l';)");
  EXPECT_TRUE(fs::is_directory(disk + "/a/d/e") && fs::is_directory(disk + "/z"));
  const std::string failed = "LOCAL_DEVICE_REDIR_ERROR error - udisk ";
  EXPECT_EQ(device.traces(), (std::vector{failed + "make_dir fail", failed + "remove_dir fail",
                                          failed + "set_rename fail"}));
  EXPECT_EQ(log.errors("set unlink error: No such file or directory"), 1U);
}

TEST_F(DiskTest, GoldenMountRequests) {
  converse("200 0300 0200 'E:' 'USB' | none;");
  EXPECT_EQ(op.GetRemoteMountPoint(), "E:");
  EXPECT_EQ(device.traces().at(0),
            "LOCAL_DEVICE_OPEN success - udisk create success RemoteMountPoint:E:");
  // No other name than a plain one makes a directory, but each is echoed.
  converse(R"(
    101 0300 'USB' | =;
    102 0b00 0000 '/inside.txt' | =;
    113 02000000 00000000 '/x' | 02000000 70000000 '/x';
    100 0300 'a/b' | =;
    100 0200 '..' | =;
    100 0100 '.' | =;
    100 0000 | =;
    100 0300 'a' 00 'b' | =;)");
  EXPECT_EQ(log.errors("mount name is not a plain name"), 5U);
  EXPECT_EQ(op.GetLocalMountPoint(), "");
  EXPECT_TRUE(Peek::statistics(op).empty());
}

TEST_F(DiskTest, CommandsWithoutAHandlerAreDroppedWithoutAWord) {
  log.clear();
  for (const int cmd : {0, 99, 104, 122, 124, 199, 201, 513, 0xffff}) {
    EXPECT_EQ(answer(cmd, std::string(64, 'x')), "none") << cmd;
  }
  auto empty = requestOf(102, "");
  empty->mBuffer.reset();
  op.EventHandle(std::move(empty));
  op.EventHandle(nullptr);
  op.BusEventHandle(nullptr);
  EXPECT_TRUE(log.all().empty());
}

}  // namespace
}  // namespace zor::test
