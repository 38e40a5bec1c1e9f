// A partition that this host mounts itself.
#pragma once

#include <string>

#include "host/cleanup.h"
#include "support/unique_fd.h"

namespace zor::host {

struct MountedPartition {
  UniqueFd lock;  ///< no other host serves the partition while it is open
  std::string directory;
  std::string label;
};

/// Mounts `device`, nosuid and nodev, below /media: a path, a link to one
/// (/dev/disk/by-label/X), or a name below /dev. It must have a label or a UUID, and no other host
/// may serve it. Throws std::runtime_error when it cannot.
///
/// `cleanup` gets the step that writes out what is not on the disk yet, unmounts the partition and
/// removes the directory if it was made for this; also when mounting fails half-way.
MountedPartition mountPartition(const std::string& device, bool readOnly, Cleanup& cleanup);

}  // namespace zor::host
