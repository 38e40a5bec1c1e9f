// The drive's statistics for people.
#pragma once

#include <string>

#include "drive/drive_statistics.h"

namespace zor::client::mount {

/// One line for each kind of counter.
std::string describe(const DriveCounters& counters);

}  // namespace zor::client::mount
