// What is mounted where, as the kernel reports it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zor {

struct Mount {
  std::uint64_t id = 0;  ///< of this mount, 0 unknown; a later one may get the same
  std::string device;    ///< major and minor number of the file system, e.g. 8:17
  std::string source;    ///< e.g. /dev/sdb1

  bool operator==(const Mount&) const = default;
};

/// What is mounted at exactly this directory, the topmost of several. A mount of
/// which nothing is known when the table cannot be read.
std::optional<Mount> mountAt(const std::string& directory);

/// Whether `mount` shows the block device at the path `device`.
bool shows(const Mount& mount, const std::string& device);

}  // namespace zor
