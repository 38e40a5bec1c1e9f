// Locks among hosts: a partition that one mounts is served by no other.
#pragma once

#include <sys/types.h>

#include <string>

#include "support/unique_fd.h"

namespace zor::host {

/// Takes the partition with this device number, for a host that mounts it, for as long as the
/// descriptor is open; the end of the process closes it, however it ends. Throws
/// std::runtime_error when another host serves it, or when the directory of the locks cannot
/// be used.
UniqueFd lockPartition(dev_t partition);

/// The same for a host that serves a directory on it: several may. Nothing where that cannot be
/// had: on a file system without a block device, for a user other than root (the locks are
/// root's), and where another host has mounted the partition.
UniqueFd sharePartition(const std::string& directory);

/// Waits until no other host is choosing a directory and mounting. Held by the descriptor.
UniqueFd lockMounting();

}  // namespace zor::host
