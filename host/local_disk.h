// Disks that are plugged in here.
#pragma once

#include <string>
#include <vector>

namespace zor::host {

struct Partition {
  std::string device;  ///< e.g. /dev/sdb1
  std::string label;   ///< the volume label, or the UUID where there is none
  std::string type;    ///< of the file system
};

struct RemovableDisk {
  std::string name;        ///< e.g. sdb
  int interfaceClass = 0;  ///< of the USB interface: 8 is mass storage, 0 unknown
  std::vector<Partition> partitions;
};

/// The first removable disk, or a name that is empty.
RemovableDisk findRemovableDisk();

}  // namespace zor::host
