// The disk's attributes in the form in which the kernel takes them.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <chrono>
#include <cstdint>
#include <optional>

#include "drive/requests/outcome.h"
#include "protocol/disk_records.h"

namespace zor::client::mount {

/// Values that programs see in place of the disk's own.
struct OwnershipOverride {
  std::optional<std::uint32_t> uid;
  std::optional<std::uint32_t> gid;
  std::optional<std::uint32_t> umask;  ///< permissions become 0777 without these bits
};

/// The result has a valid size, valid times and one of the seven types, whatever the host
/// sent. A file without an inode number on the disk gets `node`.
struct stat toStat(const udisk_stat& attributes, std::uint64_t node,
                   const OwnershipOverride& shown);

struct statvfs toStatvfs(const udisk_statvfs& statfs);

inline constexpr std::uint32_t kSameId = 0xffffffff;

/// The id to set on the disk when a program wants `wanted` and sees `shown`: kSameId
/// leaves it as it is. With `quiet`, an owner that cannot be set is no error.
Outcome<std::uint32_t> idToSet(std::uint32_t wanted, std::optional<std::uint32_t> shown,
                               bool quiet);

inline double toSeconds(std::chrono::nanoseconds time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace zor::client::mount
