// Bytes written out by hand.
#pragma once

#include <string>
#include <string_view>

#include "driver/wire_text.h"

namespace zor::client::test {

/// What is typed in hexadecimal pairs and 'text'.
inline std::string hex(std::string_view typed) { return zor::test::wire(typed); }

/// The bytes of a `udisk_stat` with a value of its own in every field: a
/// regular file of 5 bytes with mode 0644.
inline constexpr const char* kStatBytes =
    "FE FF FF FF FF FF FF FF  02 00 00 00 00 00 00 80  03 00 00 00 00 00 00 00"
    "05 00 00 00 00 00 00 00  FA FF FF FF FF FF FF FF  08 00 00 00 00 00 00 00"
    "00 10 00 00 00 00 00 00  09 00 00 00 00 00 00 00  0A 00 00 00 00 00 00 00"
    "F5 FF FF FF FF FF FF FF  0C 00 00 00 00 00 00 00  0D 00 00 00 00 00 00 00"
    "0E 00 00 00 00 00 00 00  A4 81 00 00  E8 03 00 00  64 00 00 00  00 00 00 00";

}  // namespace zor::client::test
