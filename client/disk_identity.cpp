#include "client/disk_identity.h"

#include <memory>
#include <utility>

namespace zor::client {

void queryIdentity(Disk disk, Callback<DiskIdentity> done) {
  auto space = std::make_shared<Result<udisk_statvfs>>(Error{});
  // In this order, so that the query of the root shows that the host passed over the other.
  disk.statfs("/", [space](const Result<udisk_statvfs>& sizes) { *space = sizes; });
  disk.attributes("/", [space, done = std::move(done)](const Result<udisk_stat>& root) {
    if (!root) return done(root.error());
    DiskIdentity identity{root->st_ino, {}};
    if (*space) {
      const udisk_statvfs& sizes = **space;
      identity.fileSystem = {
          sizes.f_fsid != 0 ? sizes.f_fsid : static_cast<std::uint64_t>(root->st_dev),
          sizes.f_bsize, sizes.f_blocks, !makesUpInodes(sizes)};
    }
    done(identity);
  });
}

}  // namespace zor::client
