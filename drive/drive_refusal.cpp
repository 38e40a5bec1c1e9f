// Hosts give no reasons; some can be found out.
#include <sys/statvfs.h>

#include "client/disk_identity.h"
#include "drive/drive.h"

namespace zor::client {

namespace {

constexpr std::uint64_t kMaxOnFat = 0xffffffff;

bool isFull(const udisk_statvfs& space, const Attempt& attempt) {
  if (space.f_files != 0 && space.f_favail == 0) return true;
  // FAT has no holes. Elsewhere some block more may be needed to find the data again.
  std::uint64_t bytes = attempt.bytes;
  if (isFat(space) && attempt.end > attempt.size) {
    bytes = std::max(bytes, attempt.end - attempt.size);
  }
  const std::uint64_t block = std::max<std::uint64_t>(space.f_bsize, 1);
  const std::uint64_t needed = bytes / block + (bytes % block != 0 ? 1 : 0) + (bytes != 0 ? 1 : 0);
  return space.f_bavail < std::max<std::uint64_t>(needed, 1);
}

bool isTooLarge(const udisk_statvfs& space, const Attempt& attempt) {
  if (isFat(space)) return attempt.end > kMaxOnFat && attempt.size <= kMaxOnFat;
  return space.f_bsize != 0 && attempt.end / space.f_bsize > space.f_blocks;
}

}  // namespace

/// The likeliest reason.
int Drive::refusal(int otherwise, const Attempt& attempt, const Rename* rename) {
  CompoundRequest request(mHost, rename);
  const PathLease* root = request.at(kRootNode);
  const auto space =
      request.get<udisk_statvfs>([&](auto done) { mDisk.statfs(*root, std::move(done)); });
  if (!space) return EIO;
  if ((space->f_flag & ST_RDONLY) != 0) return EROFS;
  if (space->f_namemax != 0 && attempt.name.size() > space->f_namemax) return ENAMETOOLONG;
  if (isFull(*space, attempt)) return ENOSPC;
  if (isTooLarge(*space, attempt)) return EFBIG;
  return otherwise;
}

/// Whether a file is on another file system than a directory, as far as is known.
bool Drive::isElsewhere(const udisk_stat& file, NodeId directory) {
  const Node* node = mNames.find(directory);
  if (node == nullptr || !node->directory || node->directory->self.st_mode == 0) return false;
  return node->directory->self.st_dev != file.st_dev;
}

}  // namespace zor::client
