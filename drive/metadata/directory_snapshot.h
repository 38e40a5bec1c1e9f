// A directory's entries as they were at one moment.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "protocol/disk_records.h"

namespace zor::client {

struct DirectoryItem {
  std::string name;
  udisk_stat attributes;
};

/// In the byte order of the names, without "." and "..". Immutable, so that a
/// program can read on in it while the directory changes.
using DirectorySnapshot = std::shared_ptr<const std::vector<DirectoryItem>>;

}  // namespace zor::client
