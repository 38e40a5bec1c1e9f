// How attributes, file-system statistics and directory listings travel.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <tuple>

#include "protocol/codec.h"

/// A point in time: seconds and nanoseconds since the Unix epoch.
struct udisk_timespec {
  std::int64_t tv_sec;
  std::int64_t tv_nsec;
  static constexpr auto kFields = std::tuple(&udisk_timespec::tv_sec, &udisk_timespec::tv_nsec);
  bool operator==(const udisk_timespec&) const = default;
};

/// The attributes of one file.
struct udisk_stat {
  std::int64_t st_dev;
  std::uint64_t st_ino;
  std::uint64_t st_nlink;
  std::int64_t st_size;
  std::int64_t st_rdev;
  std::int64_t st_blocks;  ///< of 512 bytes
  std::int64_t st_blksize;
  udisk_timespec st_atim;
  udisk_timespec st_mtim;
  udisk_timespec st_ctim;
  std::uint32_t st_mode;
  std::uint32_t st_uid;
  std::uint32_t st_gid;
  std::uint32_t reserved;  ///< always 0
  static constexpr auto kFields = std::tuple(
      &udisk_stat::st_dev, &udisk_stat::st_ino, &udisk_stat::st_nlink, &udisk_stat::st_size,
      &udisk_stat::st_rdev, &udisk_stat::st_blocks, &udisk_stat::st_blksize, &udisk_stat::st_atim,
      &udisk_stat::st_mtim, &udisk_stat::st_ctim, &udisk_stat::st_mode, &udisk_stat::st_uid,
      &udisk_stat::st_gid, &udisk_stat::reserved);
  bool operator==(const udisk_stat&) const = default;
};
static_assert(zor::wire::wireSize<udisk_stat>() == 120);

/// The statistics of a file system; block counts are in units of `f_bsize`.
struct udisk_statvfs {
  std::uint64_t f_bsize;
  std::uint64_t f_frsize;
  std::uint64_t f_blocks;
  std::uint64_t f_bfree;
  std::uint64_t f_bavail;
  std::uint64_t f_files;
  std::uint64_t f_ffree;
  std::uint64_t f_favail;
  std::uint64_t f_fsid;
  std::uint64_t f_flag;
  std::uint64_t f_namemax;
  std::array<std::uint64_t, 3> f_spare;  ///< always 0
  static constexpr auto kFields =
      std::tuple(&udisk_statvfs::f_bsize, &udisk_statvfs::f_frsize, &udisk_statvfs::f_blocks,
                 &udisk_statvfs::f_bfree, &udisk_statvfs::f_bavail, &udisk_statvfs::f_files,
                 &udisk_statvfs::f_ffree, &udisk_statvfs::f_favail, &udisk_statvfs::f_fsid,
                 &udisk_statvfs::f_flag, &udisk_statvfs::f_namemax, &udisk_statvfs::f_spare);
  bool operator==(const udisk_statvfs&) const = default;
};
static_assert(zor::wire::wireSize<udisk_statvfs>() == 112);

namespace zor::wire {

/// The fixed part of a listing's entry; the name with its zero byte follows.
struct DirEntryRecord {
  udisk_stat attributes;
  std::uint16_t name_length;  ///< counts the terminating zero byte
  static constexpr auto kFields =
      std::tuple(&DirEntryRecord::attributes, &DirEntryRecord::name_length);
};
static_assert(wireSize<DirEntryRecord>() == 122);

/// One entry as `ListingReader` shows it; `name` points into the listing.
struct DirEntry {
  udisk_stat attributes;
  std::string_view name;
};

/// Reads a listing that a peer made: entries back to back and, behind
/// the last one, a single zero byte.
class ListingReader {
 public:
  explicit ListingReader(Bytes listing) noexcept : mCursor(listing) {}

  /// Reads the next entry. False at the end and at the first inconsistency: an
  /// entry that runs past the end, a name of length 0 or without its
  /// terminator, a name with a zero byte inside.
  bool next(DirEntry& entry) noexcept {
    if (mCursor.rest().size() <= 1) return false;
    DirEntryRecord record{};
    if (!mCursor.get(record)) return false;
    const Bytes bytes = mCursor.take(record.name_length);
    if (bytes.empty()) return fail();
    entry.name = {reinterpret_cast<const char*>(bytes.data()), bytes.size() - 1};
    if (bytes.back() != std::byte{0} || entry.name.find('\0') != std::string_view::npos) {
      return fail();
    }
    entry.attributes = record.attributes;
    return true;
  }

  /// After `next` returned false: whether the listing was read to its end.
  bool complete() const noexcept { return mCursor.ok() && mCursor.rest().size() <= 1; }

 private:
  bool fail() noexcept {
    mCursor.take(mCursor.rest().size() + std::size_t{1});
    return false;
  }

  Cursor mCursor;
};

}  // namespace zor::wire
