#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include "cli/console.h"
#include "client/remote_path.h"
#include "support/printable.h"
#include "support/unique_fd.h"

namespace zor::client::cli {
namespace {

TEST(TextTest, NothingActsOnATerminalOrMisleadsItsReader) {
  const std::pair<std::string, std::string> kCases[] = {
      {"plain \\ text", "plain \\ text"},
      {"\x1b[2J\n\t\x7f", "\\x1b[2J\\x0a\\x09\\x7f"},
      {std::string("a\0b", 3), "a\\x00b"},
      {"мир 日本 😀 \u00a0", "мир 日本 😀 \u00a0"},
      {"\u009b1m", "\\xc2\\x9b1m"},  // a control character of two bytes
      {"\xff\xfe"
       "a\xc3",
       "\\xff\\xfea\\xc3"},                          // not UTF-8, and cut off
      {"\xc0\xaf", "\\xc0\\xaf"},                    // overlong
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // half of a surrogate pair
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond Unicode
      {"gpj.\u202eexe", "gpj.\\xe2\\x80\\xaeexe"},   // these turn the direction
      {"\u200e\u061c\u2066", "\\xe2\\x80\\x8e\\xd8\\x9c\\xe2\\x81\\xa6"},
      {"a\u2028b",
       "a\\xe2\\x80\\xa8"
       "b"},  // begins a line
  };
  const UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(::unlockpt(master.get()), 0);
  const UniqueFd terminal(::open(::ptsname(master.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
  const UniqueFd file(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  for (const auto& [text, expected] : kCases) {
    EXPECT_EQ(printable(text), expected);
    EXPECT_EQ(Output(terminal.get()).shown(text), expected);
    EXPECT_EQ(Output(file.get()).shown(text), text);
  }
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
}  // namespace zor::client::cli
