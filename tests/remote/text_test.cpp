#include "text.h"

#include <gtest/gtest.h>

#include "remote_path.h"
#include "set_length.h"

namespace zor::remote::cli {
namespace {

TEST(TextTest, EscapesWhatActsOnATerminal) {
  const struct {
    const char* text;
    const char* expected;
  } kCases[] = {
      {"plain", "plain"},
      {"\x1b[2J\n\t\x7f", "\\x1B[2J\\x0A\\x09\\x7F"},
      {"мир 日本 😀", "мир 日本 😀"},
      {"\xc2\x9b"
       "1m",
       "\\xC2\\x9B"
       "1m"},  // a control character of two bytes
      {"\xff\xfe"
       "a\xc3",
       "\\xFF\\xFE"
       "a\\xC3"},                                    // not UTF-8, and cut off
      {"\xc0\xaf", "\\xC0\\xAF"},                    // overlong
      {"\xed\xa0\x80", "\\xED\\xA0\\x80"},           // half of a surrogate pair
      {"\xf4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},  // beyond Unicode
      {"gpj.\xe2\x80\xae"
       "exe",
       "gpj.\\xE2\\x80\\xAE"
       "exe"},  // turns the direction
  };
  for (const auto& each : kCases) EXPECT_EQ(escaped(each.text), each.expected);
}

TEST(TextTest, SizesHaveUnits) {
  const struct {
    std::uint64_t bytes;
    const char* expected;
  } kCases[] = {{0, "0"},       {1023, "1023"},    {1024, "1.0K"},       {10188, "9.9K"},
                {10189, "10K"}, {1048575, "1.0M"}, {5368709120, "5.0G"}, {UINT64_MAX, "16E"}};
  for (const auto& each : kCases) EXPECT_EQ(humanSize(each.bytes), each.expected) << each.bytes;
}

TEST(TextTest, ModesAreShownAsLettersAre) {
  const struct {
    std::uint32_t mode;
    const char* expected;
  } kCases[] = {{0100644, "-rw-r--r--"}, {0040755, "drwxr-xr-x"}, {0120777, "lrwxrwxrwx"},
                {0104755, "-rwsr-xr-x"}, {0102644, "-rw-r-Sr--"}, {0041777, "drwxrwxrwt"},
                {0010600, "prw-------"}, {0, "??????????"}};
  for (const auto& each : kCases) EXPECT_EQ(modeString(each.mode), each.expected);
}

TEST(RemotePathTest, PathsAreMadeNormal) {
  const struct {
    const char* typed;
    const char* expected;
  } kCases[] = {{"", "/"},           {"/", "/"},       {"a", "/a"},           {"/a//b/", "/a/b"},
                {"./a/./b", "/a/b"}, {"a/../b", "/b"}, {"../../a", "/a"},     {"a/..", "/"},
                {"...", "/..."},     {" a", "/ a"},    {"/a/b/../../..", "/"}};
  for (const auto& each : kCases) EXPECT_EQ(normalPath(each.typed), each.expected) << each.typed;
  EXPECT_EQ(parentPath("/a/b"), "/a");
  EXPECT_EQ(parentPath("/a"), "/");
  EXPECT_EQ(baseName("/a/b"), "b");
  EXPECT_EQ(joinPath("/", "a"), "/a");
}

TEST(SetLengthTest, KnowsWhichNamesHaveNoLimit) {
  for (const char* name : {"/a.doc", "/a.docx", "/a.tmp", "/b.x/a.pptm", "/a.doc/file"}) {
    EXPECT_TRUE(hasUnlimitedName(name)) << name;
  }
  for (const char* name : {"/a.txt", "/a.DOC", "/adoc", "/a.do", "/a.doc.gz", "/a.doc/file.txt"}) {
    EXPECT_FALSE(hasUnlimitedName(name)) << name;
  }
}

}  // namespace
}  // namespace zor::remote::cli
