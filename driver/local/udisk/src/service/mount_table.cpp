#include "mount_table.h"

#include <fstream>
#include <sstream>

namespace zor {
namespace {

// The kernel writes blanks, line breaks and backslashes as \ooo.
std::string unescaped(const std::string& field) {
  std::string text;
  for (std::size_t at = 0; at < field.size(); ++at) {
    if (field[at] == '\\' && at + 3 < field.size()) {
      text += static_cast<char>(std::stoi(field.substr(at + 1, 3), nullptr, 8));
      at += 3;
    } else {
      text += field[at];
    }
  }
  return text;
}

}  // namespace

bool isMountPoint(const std::string& directory) {
  std::ifstream table("/proc/self/mountinfo");
  if (!table) return true;  // unknown: better to leave the directory alone
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string id, parent, device, root, place;
    if (fields >> id >> parent >> device >> root >> place && unescaped(place) == directory) {
      return true;
    }
  }
  return false;
}

}  // namespace zor
