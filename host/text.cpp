#include "text.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace zor::host {
namespace {

// The size of the well-formed UTF-8 sequence that `text` begins with, or 0.
// The bounds of the second byte keep out overlong forms, surrogates and values
// above U+10FFFF.
std::size_t sequenceSize(std::string_view text) noexcept {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t first = byte(0);
  if (first < 0x80) return 1;
  if (first < 0xc2 || first > 0xf4) return 0;
  const std::size_t size = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (text.size() < size) return 0;
  const std::uint8_t low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
  const std::uint8_t high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
  if (byte(1) < low || byte(1) > high) return 0;
  for (std::size_t i = 2; i < size; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  return size;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x20 || byte == 0x7f) {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      shown += escaped;
    } else {
      shown += character;
    }
  }
  return shown;
}

std::string validUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  while (!text.empty()) {
    const std::size_t size = sequenceSize(text);
    if (size == 0) {
      valid += "\xef\xbf\xbd";
      text.remove_prefix(1);
    } else {
      valid += text.substr(0, size);
      text.remove_prefix(size);
    }
  }
  return valid;
}

}  // namespace zor::host
