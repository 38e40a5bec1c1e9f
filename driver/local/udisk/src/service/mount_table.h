// What is mounted where, as the kernel tells it.
#pragma once

#include <string>

namespace zor {

/// Whether something is mounted at exactly this directory.
bool isMountPoint(const std::string& directory);

}  // namespace zor
