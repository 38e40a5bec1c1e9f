#include "host/utf8.h"

#include <gtest/gtest.h>

namespace zor::host {
namespace {

TEST(Text, ReplacesWhatIsNotUtf8) {
  const std::string r = "\xef\xbf\xbd";
  const struct {
    std::string text, expected;
  } table[] = {
      {"caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x92\xbe \xf4\x8f\xbf\xbf", ""},
      {"caf\xe9.txt", "caf" + r + ".txt"},
      {"\xc3", r},                           // cut
      {"\xe4\xb8", r + r},                   // cut
      {"\xf0\x9f\x92\"", r + r + r + "\""},  // the quote survives
      {"\xc0\xaf", r + r},                   // overlong
      {"\xe0\x9f\xbf", r + r + r},           // overlong
      {"\xed\xa0\x80", r + r + r},           // a surrogate
      {"\xf4\x90\x80\x80", r + r + r + r},   // above U+10FFFF
      {"\x80\xff", r + r},
  };
  for (const auto& row : table) {
    EXPECT_EQ(validUtf8(row.text), row.expected.empty() ? row.text : row.expected);
  }
}

}  // namespace
}  // namespace zor::host
