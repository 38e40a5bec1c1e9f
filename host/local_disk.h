// Disks that are plugged in here: finding them, and mounting a partition.
#pragma once

#include <memory>
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

/// A partition that is mounted for as long as this object lives.
class MountedPartition {
 public:
  /// Mounts `device`, which must have a label or a UUID. Throws
  /// std::runtime_error when it cannot.
  explicit MountedPartition(const std::string& device);
  ~MountedPartition();
  MountedPartition(const MountedPartition&) = delete;
  MountedPartition& operator=(const MountedPartition&) = delete;

  const std::string& directory() const noexcept { return mDirectory; }
  const std::string& label() const noexcept { return mLabel; }
  /// Unmounts and removes the directory. Throws std::runtime_error when the
  /// partition stays mounted. Without a call the destructor does it.
  void unmount();
  /// Leaves the partition mounted: somebody else unmounts it.
  void release() noexcept;

 private:
  struct Service;
  std::unique_ptr<Service> mService;
  std::string mDirectory;
  std::string mLabel;
};

}  // namespace zor::host
