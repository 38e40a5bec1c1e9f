#include "cli/format.h"

#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <ctime>

namespace zor::client::cli {

std::string humanSize(std::uint64_t bytes) {
  constexpr std::string_view kUnits = "KMGTPE";
  if (bytes < 1024) return std::to_string(bytes);
  auto value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  for (; value >= 1023.95 && unit + 1 < kUnits.size(); ++unit) value /= 1024;
  std::array<char, 32> text;
  std::snprintf(text.data(), text.size(), value < 9.95 ? "%.1f%c" : "%.0f%c", value, kUnits[unit]);
  return text.data();
}

std::string modeString(std::uint32_t mode) {
  if (mode == 0) return "??????????";
  std::string text = "?rwxrwxrwx";
  text[0] = S_ISREG(mode)    ? '-'
            : S_ISDIR(mode)  ? 'd'
            : S_ISLNK(mode)  ? 'l'
            : S_ISCHR(mode)  ? 'c'
            : S_ISBLK(mode)  ? 'b'
            : S_ISFIFO(mode) ? 'p'
            : S_ISSOCK(mode) ? 's'
                             : '?';
  for (unsigned bit = 0; bit < 9; ++bit) {
    if ((mode & (0400U >> bit)) == 0) text[bit + 1] = '-';
  }
  const auto special = [&](std::uint32_t flag, std::size_t at, char with, char without) {
    if ((mode & flag) != 0) text[at] = text[at] == 'x' ? with : without;
  };
  special(S_ISUID, 3, 's', 'S');
  special(S_ISGID, 6, 's', 'S');
  special(S_ISVTX, 9, 't', 'T');
  return text;
}

std::string_view typeName(std::uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return "regular file";
    case S_IFDIR:
      return "directory";
    case S_IFLNK:
      return "symbolic link";
    case S_IFCHR:
      return "character device";
    case S_IFBLK:
      return "block device";
    case S_IFIFO:
      return "named pipe";
    case S_IFSOCK:
      return "socket";
    default:
      return "file of unknown type";
  }
}

std::string localTime(std::int64_t seconds, const char* form) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  // Fails for years that do not fit: the number is better than nothing.
  if (::localtime_r(&time, &parts) == nullptr) return std::to_string(seconds);
  std::array<char, 80> text{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::strftime(text.data(), text.size(), form, &parts);
#pragma GCC diagnostic pop
  return text.data();
}

std::string padded(std::string_view text, std::size_t width) {
  std::string result(width > text.size() ? width - text.size() : 0, ' ');
  return result.append(text);
}

std::string counted(std::uint64_t count, std::string_view noun) {
  std::string text = std::to_string(count);
  text.append(" ").append(noun);
  return count == 1 ? text : text + 's';
}

}  // namespace zor::client::cli
