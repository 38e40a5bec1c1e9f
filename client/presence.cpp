#include "client/presence.h"

#include <memory>
#include <utility>

#include "client/remote_path.h"

namespace zor::client {

void queryPresence(Disk& disk, const std::string& path, Callback<Presence> done) {
  const auto found = std::make_shared<Presence>(Presence::unknown());
  const auto refused = std::make_shared<bool>(false);
  disk.attributes(path, [found, refused](const Result<udisk_stat>& attributes) {
    if (attributes) *found = Presence::present(*attributes);
    *refused = !attributes && attributes.error().kind == ErrorKind::kFailed;
  });
  // Requests are served in order: a disk that can be queried now could be then. The
  // root has no parent, so it is never absent.
  const bool hasParent = path != "/";
  disk.attributes(parentPath(path), [found, refused, hasParent,
                                     done = std::move(done)](const Result<udisk_stat>& parent) {
    if (*refused && hasParent && parent) *found = Presence::absent();
    done(*found);
  });
}

}  // namespace zor::client
