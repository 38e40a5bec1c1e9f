#include "support/printable.h"

#include <glib.h>

#include <cstdint>

namespace zor {
namespace {

struct Character {
  std::size_t size;  ///< 0: no well-formed UTF-8
  gunichar value;
};

Character firstOf(std::string_view text) noexcept {
  if (text.empty()) return {0, 0};
  if (text[0] == '\0') return {1, 0};  // GLib takes it for the end of the text
  const auto size = static_cast<gssize>(text.size());
  const gunichar value = g_utf8_get_char_validated(text.data(), size);
  if (value >= static_cast<gunichar>(-2)) return {0, 0};
  return {static_cast<std::size_t>(g_utf8_next_char(text.data()) - text.data()), value};
}

bool isHarmless(gunichar c) noexcept {
  if (c < 0x20 || (c >= 0x7f && c <= 0x9f)) return false;
  const bool separatesLines = c == 0x2028 || c == 0x2029;
  const bool turnsDirection = c == 0x061c || c == 0x200e || c == 0x200f ||
                              (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
  return !separatesLines && !turnsDirection;
}

}  // namespace

std::size_t utf8Size(std::string_view text) noexcept { return firstOf(text).size; }

std::string printable(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const Character first = firstOf(text);
    const std::string_view bytes = text.substr(0, first.size == 0 ? 1 : first.size);
    text.remove_prefix(bytes.size());
    if (first.size != 0 && isHarmless(first.value)) {
      result += bytes;
      continue;
    }
    for (const char c : bytes) {
      const auto byte = static_cast<std::uint8_t>(c);
      result.append({'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]});
    }
  }
  return result;
}

}  // namespace zor
