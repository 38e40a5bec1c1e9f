#include "client/disk_identity.h"

#include <memory>
#include <utility>

namespace zor::client {

void queryIdentity(Disk disk, Callback<DiskIdentity> done) {
  auto root = std::make_shared<Result<udisk_stat>>(Error{});
  disk.attributes("/", [root](Result<udisk_stat> attributes) { *root = std::move(attributes); });
  disk.statfs("/", [root, done = std::move(done)](const Result<udisk_statvfs>& sizes) {
    if (!*root) return done(root->error());
    if (!sizes) return done(sizes.error());
    const bool hasId = sizes->f_fsid != 0;
    done(DiskIdentity{(*root)->st_ino,
                      hasId ? sizes->f_fsid : static_cast<std::uint64_t>((*root)->st_dev),
                      sizes->f_bsize, sizes->f_blocks, !isFat(*sizes)});
  });
}

}  // namespace zor::client
