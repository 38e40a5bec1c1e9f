#include "mount_table.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <fstream>
#include <sstream>

namespace zor {
namespace {

bool isOctal(const std::string& digits) {
  return digits.size() == 3 && digits.find_first_not_of("01234567") == std::string::npos;
}

// The kernel writes blanks, line breaks and backslashes as \ooo.
std::string unescaped(const std::string& field) {
  std::string text;
  for (std::size_t at = 0; at < field.size(); ++at) {
    if (field[at] == '\\' && isOctal(field.substr(at + 1, 3))) {
      text += static_cast<char>(std::stoi(field.substr(at + 1, 3), nullptr, 8));
      at += 3;
    } else {
      text += field[at];
    }
  }
  return text;
}

bool isBlockDevice(const std::string& path, dev_t& number) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return false;
  number = status.st_rdev;
  return true;
}

}  // namespace

std::optional<Mount> mountAt(const std::string& directory) {
  std::ifstream table("/proc/self/mountinfo");
  if (!table) return Mount();
  std::optional<Mount> found;
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    Mount mount;
    std::string field, place;
    fields >> mount.id >> field >> mount.device >> field >> place;
    if (!fields || unescaped(place) != directory) continue;
    while (fields >> field && field != "-") {
    }
    fields >> field >> mount.source;
    mount.source = unescaped(mount.source);
    found = mount;  // a later one lies on top
  }
  return found;
}

bool shows(const Mount& mount, const std::string& device) {
  dev_t number = 0;
  dev_t source = 0;
  if (!isBlockDevice(device, number)) return false;
  if (mount.device == std::to_string(major(number)) + ":" + std::to_string(minor(number))) {
    return true;
  }
  // Some file systems have a number of their own.
  return isBlockDevice(mount.source, source) && source == number;
}

}  // namespace zor
