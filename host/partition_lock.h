// One host for each partition.
#pragma once

#include <sys/types.h>

#include "support/unique_fd.h"

namespace zor::host {

/// Takes the partition with this device number for as long as the descriptor is
/// open; the end of the process closes it, however it ends. Throws std::runtime_error
/// when another host has it, or when the directory of the locks cannot be used.
UniqueFd lockPartition(dev_t partition);

/// Waits until no other host is choosing a directory and mounting. Held by the descriptor.
UniqueFd lockMounting();

}  // namespace zor::host
