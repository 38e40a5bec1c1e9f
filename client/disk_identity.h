// Telling one disk from another.
#pragma once

#include <cstdint>

#include "client/disk.h"

namespace zor::client {

/// What a disk keeps while it is unplugged and plugged in again, as far as a host
/// tells. Two disks that are equal in all of it cannot be told apart.
struct DiskIdentity {
  std::uint64_t rootInode = 0;   ///< of the served directory
  std::uint64_t fileSystem = 0;  ///< its id; where it has none, its device number
  std::uint64_t blockSize = 0;
  std::uint64_t blocks = 0;
  bool lastingInodes = true;  ///< files keep their inode numbers

  bool operator==(const DiskIdentity&) const = default;
};

/// FAT and exFAT: no inodes are counted, and names are longer than elsewhere (or
/// shorter). Inode numbers are made up, anew when the host has forgotten a file.
inline bool isFat(const udisk_statvfs& sizes) {
  return sizes.f_files == 0 && sizes.f_namemax != 255;
}

/// Asks for it with one round trip. ErrorKind::kFailed: the disk cannot be read.
void queryIdentity(Disk disk, Callback<DiskIdentity> done);

}  // namespace zor::client
