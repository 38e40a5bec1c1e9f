// Foreign text for terminals and logs.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zor {

/// The bytes of the well-formed UTF-8 character that `text` begins with; 0 if there is
/// none: overlong forms, surrogates and values above U+10FFFF are not well-formed.
std::size_t utf8Size(std::string_view text) noexcept;

/// `text` with each byte of what could drive a terminal, forge a line or mislead its reader
/// as \xhh: control characters (U+0080 to U+009F as well), line separators, marks that
/// change the direction of writing, and bytes that are not UTF-8.
std::string printable(std::string_view text);

}  // namespace zor
