// Turning values into text for people.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zor::client::cli {

/// A byte count with a binary unit and at most one decimal: "512", "1.5K".
std::string humanSize(std::uint64_t bytes);

/// "drwxr-xr-x"; for mode 0, which stands for unknown attributes, "??????????".
std::string modeString(std::uint32_t mode);

/// "regular file", "directory", ...
std::string_view typeName(std::uint32_t mode);

/// A point in time in this machine's time zone, in the form of strftime.
std::string localTime(std::int64_t seconds, const char* form);

/// `text` with blanks before it up to `width` bytes.
std::string padded(std::string_view text, std::size_t width);

/// "1 file", "2 files".
std::string counted(std::uint64_t count, std::string_view noun);

}  // namespace zor::client::cli
