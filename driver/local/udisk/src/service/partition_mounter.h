// Mounting of probed partitions below /media, with the system's tools.
#pragma once

#include <vector>

#include "disk_probe.h"
#include "mount_directory.h"

namespace zor {

/// One thread at a time.
class PartitionMounter {
 public:
  /// Mounts a partition at /media/LABEL, or at /media/DEVICE when the label makes no
  /// directory name, none that fits `mountPath`, or one that is taken: see
  /// MountDirectory. What the mount program returned (0 = mounted), or -1 when it
  /// could not be run.
  int MountLocal(UDiskInfo* info);
  /// Unmounts a partition from its `mountPath`, and removes the directory if MountLocal
  /// made it and it is empty. What somebody else mounted there is left alone, unless it
  /// shows the same partition.
  void unmount(const UDiskInfo& part);

 private:
  std::vector<MountDirectory> mDirectories;  ///< of what MountLocal mounted
};

}  // namespace zor
