// Telling one disk from another.
#pragma once

#include <cstdint>
#include <optional>

#include "client/disk.h"

namespace zor::client {

/// What a disk keeps while it is unplugged and plugged in again, as far as a host
/// reports it. Two disks that are equal in all of it cannot be told apart.
struct DiskIdentity {
  struct FileSystem {
    std::uint64_t id = 0;  ///< its device number, where it has no id
    std::uint64_t blockSize = 0;
    std::uint64_t blocks = 0;
    bool lastingInodes = true;  ///< a guess, which is not compared

    bool operator==(const FileSystem& other) const {
      return id == other.id && blockSize == other.blockSize && blocks == other.blocks;
    }
  };

  std::uint64_t rootInode = 0;           ///< of the served directory
  std::optional<FileSystem> fileSystem;  ///< nothing when the host does not report it

  /// Whether files keep their inode numbers, as far as is known.
  bool lastingInodes() const noexcept { return !fileSystem || fileSystem->lastingInodes; }
};

/// FAT and exFAT: no inodes are counted, and names are longer than elsewhere (or
/// shorter). Inode numbers are made up, anew when the host has forgotten a file.
inline bool isFat(const udisk_statvfs& sizes) {
  return sizes.f_files == 0 && sizes.f_namemax != 255;
}

/// Also file systems in programs that count clusters as files, as those for exFAT do.
inline bool makesUpInodes(const udisk_statvfs& sizes) {
  return isFat(sizes) || (sizes.f_files != 0 && sizes.f_ffree == sizes.f_bfree);
}

/// Asks for it with one round trip. ErrorKind::kFailed: the disk cannot be read.
void queryIdentity(Disk disk, Callback<DiskIdentity> done);

}  // namespace zor::client
