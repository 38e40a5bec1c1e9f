// Bytes written out by hand.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zor::remote::test {

/// "27 01" and 'text' pieces, in any order: hex("02 00 '/a'").
inline std::string hex(std::string_view text) {
  std::string bytes;
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\'') {
      quoted = !quoted;
    } else if (quoted) {
      bytes += text[i];
    } else if (text[i] != ' ') {
      bytes += static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16));
      ++i;
    }
  }
  return bytes;
}

/// The bytes of a `udisk_stat` with a value of its own in every field: a
/// regular file of 5 bytes with mode 0644.
inline constexpr const char* kStatBytes =
    "FE FF FF FF FF FF FF FF  02 00 00 00 00 00 00 80  03 00 00 00 00 00 00 00"
    "05 00 00 00 00 00 00 00  FA FF FF FF FF FF FF FF  08 00 00 00 00 00 00 00"
    "00 10 00 00 00 00 00 00  09 00 00 00 00 00 00 00  0A 00 00 00 00 00 00 00"
    "F5 FF FF FF FF FF FF FF  0C 00 00 00 00 00 00 00  0D 00 00 00 00 00 00 00"
    "0E 00 00 00 00 00 00 00  A4 81 00 00  E8 03 00 00  64 00 00 00  00 00 00 00";

}  // namespace zor::remote::test
