#include "text.h"

#include <gtest/gtest.h>

#include "remote_path.h"

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

}  // namespace
}  // namespace zor::remote::cli
