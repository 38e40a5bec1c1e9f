// The drive's metrics as text.
#pragma once

#include <string>

#include "drive/drive_counters.h"

namespace zor::client::mount {

/// A line for each kind of counter.
std::string describe(const DriveCounters& counters);

}  // namespace zor::client::mount
