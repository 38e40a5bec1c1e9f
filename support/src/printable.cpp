#include "support/printable.h"

#include <cstdint>

namespace zor {
namespace {

char32_t decoded(std::string_view character) noexcept {
  const auto first = static_cast<std::uint8_t>(character[0]);
  char32_t value = character.size() == 1 ? first : first & (0x7fU >> character.size());
  for (const char next : character.substr(1)) {
    value = (value << 6) | (static_cast<std::uint8_t>(next) & 0x3fU);
  }
  return value;
}

bool isHarmless(char32_t c) noexcept {
  if (c < 0x20 || (c >= 0x7f && c <= 0x9f)) return false;
  const bool separatesLines = c == 0x2028 || c == 0x2029;
  const bool turnsDirection = c == 0x061c || c == 0x200e || c == 0x200f ||
                              (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
  return !separatesLines && !turnsDirection;
}

}  // namespace

std::size_t utf8Size(std::string_view text) noexcept {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  if (text.empty()) return 0;
  const std::uint8_t first = byte(0);
  if (first < 0x80) return 1;
  if (first < 0xc2 || first > 0xf4) return 0;
  const std::size_t size = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (text.size() < size) return 0;
  // The bounds of the second byte keep out overlong forms, surrogates and too large values.
  const std::uint8_t low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
  const std::uint8_t high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
  if (byte(1) < low || byte(1) > high) return 0;
  for (std::size_t i = 2; i < size; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  return size;
}

std::string printable(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const std::size_t size = utf8Size(text);
    const std::string_view character = text.substr(0, size == 0 ? 1 : size);
    text.remove_prefix(character.size());
    if (size != 0 && isHarmless(decoded(character))) {
      result += character;
      continue;
    }
    for (const char c : character) {
      const auto byte = static_cast<std::uint8_t>(c);
      result.append({'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]});
    }
  }
  return result;
}

}  // namespace zor
