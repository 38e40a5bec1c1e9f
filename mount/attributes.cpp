#include "mount/attributes.h"

#include <algorithm>
#include <bit>
#include <limits>

namespace zor::client::mount {
namespace {

constexpr std::uint32_t kPermissionBits = 07777;
constexpr std::uint64_t kDefaultBlock = 4096;
constexpr std::uint64_t kNameMax = 255;

std::uint32_t validMode(std::uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
    case S_IFDIR:
    case S_IFLNK:
    case S_IFCHR:
    case S_IFBLK:
    case S_IFIFO:
    case S_IFSOCK:
      return mode & (S_IFMT | kPermissionBits);
    default:
      return S_IFREG | (mode & kPermissionBits);
  }
}

// The kernel calculates with the block size's logarithm, and programs reserve
// that much memory.
std::uint64_t validBlock(std::uint64_t size) {
  const bool usable = std::has_single_bit(size) && size >= 512 && size <= (1U << 22);
  return usable ? size : kDefaultBlock;
}

timespec validTime(const udisk_timespec& time) {
  const bool usable = time.tv_nsec >= 0 && time.tv_nsec < 1'000'000'000;
  return {time.tv_sec, usable ? time.tv_nsec : 0};
}

}  // namespace

struct stat toStat(const udisk_stat& attributes, std::uint64_t node,
                   const OwnershipOverride& shown) {
  struct stat result {};
  result.st_ino = attributes.st_ino != 0 ? attributes.st_ino : node;
  result.st_mode = validMode(attributes.st_mode);
  if (shown.umask) result.st_mode = (result.st_mode & S_IFMT) | (0777U & ~*shown.umask);
  result.st_nlink =
      std::min<std::uint64_t>(attributes.st_nlink, std::numeric_limits<std::uint32_t>::max());
  result.st_uid = shown.uid.value_or(attributes.st_uid);
  result.st_gid = shown.gid.value_or(attributes.st_gid);
  if (S_ISCHR(result.st_mode) || S_ISBLK(result.st_mode)) {
    result.st_rdev = static_cast<dev_t>(attributes.st_rdev);
  }
  result.st_size = std::max<std::int64_t>(attributes.st_size, 0);
  result.st_blocks = std::max<std::int64_t>(attributes.st_blocks, 0);
  result.st_blksize = static_cast<blksize_t>(
      validBlock(static_cast<std::uint64_t>(std::max<std::int64_t>(attributes.st_blksize, 0))));
  result.st_atim = validTime(attributes.st_atim);
  result.st_mtim = validTime(attributes.st_mtim);
  result.st_ctim = validTime(attributes.st_ctim);
  return result;
}

struct statvfs toStatvfs(const udisk_statvfs& statfs) {
  struct statvfs result {};
  result.f_bsize = validBlock(statfs.f_bsize);
  result.f_frsize = result.f_bsize;  // the unit of the counts
  result.f_blocks = statfs.f_blocks;
  result.f_bfree = std::min(statfs.f_bfree, statfs.f_blocks);
  result.f_bavail = std::min(statfs.f_bavail, statfs.f_blocks);
  result.f_files = statfs.f_files;
  result.f_ffree = std::min(statfs.f_ffree, statfs.f_files);
  result.f_favail = result.f_ffree;
  const bool valid = statfs.f_namemax >= 1 && statfs.f_namemax <= kNameMax;
  result.f_namemax = valid ? statfs.f_namemax : kNameMax;
  return result;
}

Outcome<std::uint32_t> idToSet(std::uint32_t wanted, std::optional<std::uint32_t> shown,
                               bool quiet) {
  if (!shown || wanted == kSameId) return wanted;
  if (wanted == *shown || quiet) return kSameId;
  return Errno{EPERM};
}

}  // namespace zor::client::mount
