// A partition that this host mounted itself.
#pragma once

#include <functional>
#include <string>

#include "support/unique_fd.h"

struct UDiskInfo;

namespace zor::host {

/// A partition that is mounted for as long as this object lives: nosuid, nodev, and
/// below /media in a directory that is removed again if it was made for this.
class MountedPartition {
 public:
  /// Mounts `device`: a path, a link to one (/dev/disk/by-label/X), or a name below
  /// /dev. It must have a label or a UUID, and no other host may serve it. Throws
  /// std::runtime_error when it cannot.
  MountedPartition(const std::string& device, bool readOnly);
  ~MountedPartition();
  MountedPartition(const MountedPartition&) = delete;
  MountedPartition& operator=(const MountedPartition&) = delete;

  const std::string& directory() const noexcept { return mDirectory; }
  const std::string& label() const noexcept { return mLabel; }
  /// Writes out what is not on the disk yet, unmounts it and removes the directory.
  /// Throws std::runtime_error when the partition stays mounted. Without a call the
  /// destructor does it.
  void unmount();
  /// Leaves the partition mounted: somebody else unmounts it. It stays locked.
  void release() noexcept { mUnmount = nullptr; }

 private:
  void mount(UDiskInfo part, bool readOnly);
  void mountLocal(UDiskInfo part);
  void mountPlain(const UDiskInfo& part, bool readOnly);

  UniqueFd mLock;
  std::function<void()> mUnmount;  ///< empty: nothing is to be done
  std::string mDirectory;
  std::string mLabel;
};

}  // namespace zor::host
