// The disk's attributes in the form in which the kernel takes them.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <chrono>
#include <cstdint>
#include <optional>

#include "drive/outcome.h"
#include "protocol/disk_records.h"

namespace zor::client::mount {

/// What programs are shown in the place of the disk's own values.
struct Presentation {
  std::optional<std::uint32_t> uid;
  std::optional<std::uint32_t> gid;
  std::optional<std::uint32_t> umask;  ///< permissions become 0777 without these bits
  bool quiet = false;                  ///< an owner that cannot be set is no error
};

/// Whatever the host sent: a valid size, times and one of the seven types. A
/// file without a number on the disk gets `node`.
struct stat toStat(const udisk_stat& attributes, std::uint64_t node, const Presentation& shown);

struct statvfs toStatvfs(const udisk_statvfs& statistics);

inline constexpr std::uint32_t kSameId = 0xffffffff;

/// What a change to `wanted` asks of the disk when programs are shown `shown`:
/// nothing (kSameId), or the id itself where nothing is put in its place.
Outcome<std::uint32_t> idToSet(std::uint32_t wanted, std::optional<std::uint32_t> shown,
                               bool quiet);

inline double toSeconds(std::chrono::nanoseconds time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace zor::client::mount
