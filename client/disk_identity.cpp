#include "client/disk_identity.h"

#include <memory>
#include <utility>

namespace zor::client {

void queryIdentity(Disk disk, Callback<DiskIdentity> done) {
  auto root = std::make_shared<Result<udisk_stat>>(Error{});
  disk.attributes("/", [root](Result<udisk_stat> attributes) { *root = std::move(attributes); });
  disk.statvfs("/", [root, done = std::move(done)](const Result<udisk_statvfs>& statistics) {
    if (!*root) return done(root->error());
    if (!statistics) return done(statistics.error());
    const bool hasId = statistics->f_fsid != 0;
    done(DiskIdentity{(*root)->st_ino,
                      hasId ? statistics->f_fsid : static_cast<std::uint64_t>((*root)->st_dev),
                      statistics->f_bsize, statistics->f_blocks, !isFat(*statistics)});
  });
}

}  // namespace zor::client
