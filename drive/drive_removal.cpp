// Names that go.
#include <utility>

#include "drive/drive.h"

namespace zor::client {

Outcome<Unit> Drive::unlink(NodeId directory, std::string_view name) {
  const MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const std::string key = mNames.spelling(**parent, name);
  const Entry* entry = mNames.findEntry(directory, key);
  if (entry != nullptr && entry->node != nullptr && entry->node->open) {
    if (entry->node->open->handles > 0) return sillyRename(directory, key);
    const Outcome<Unit> flushed = mWriteBack.flush(entry->node->id, false);
    if (!flushed) return flushed.error();
  }
  return removeName(directory, key, false);
}

Outcome<Unit> Drive::removeDirectory(NodeId directory, std::string_view name) {
  const MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  return removeName(directory, mNames.spelling(**parent, name), true);
}

Outcome<Unit> Drive::removeName(NodeId directory, const std::string& name, bool isDir) {
  for (int attempt = 0;; ++attempt) {
    CompoundRequest request(mHost);
    const PathLease* at = request.at(directory, name);
    const Outcome<Node*> parent = directoryNode(directory);
    if (!parent) return parent.error();
    Status removed = Unit{};
    mNames.invalidateLinks();
    request.add<Unit>(
        [&](auto done) {
          if (isDir) {
            mDisk.removeDir(*at, std::move(done));
          } else {
            mDisk.unlink(*at, std::move(done));
          }
        },
        [this, directory, &name, &removed](Status& status) {
          mMutex.assertHeld();
          removed = status;
          if (!status) return;
          mNames.keepRemoved(directory, name);
          if (Node* node = mNames.find(directory)) mNames.remove(*node, name);
        });
    request.queryDirectory(directory);
    request.wait();
    if (removed) return Unit{};
    // Refused, or lost with the link: a query shows which.
    const Presence seen = revalidate(directory, name);
    const bool lost = removed.error().kind != ErrorKind::kFailed;
    if (seen.isUnknown()) return Errno{EIO};
    if (seen.isAbsent()) {
      if (lost) return Unit{};
      return Errno{ENOENT};
    }
    if (lost && attempt < kMaxRepeats) continue;
    if (lost) return Errno{EIO};
    if (isDir != isDirectory(seen.attributes())) return Errno{isDir ? ENOTDIR : EISDIR};
    if (isDir) {
      CompoundRequest listing(mHost);
      const PathLease* inside = listing.at(directory, name);
      if (inside == nullptr) return Errno{ENOENT};
      const Result<Listing> left =
          listing.get<Listing>([&](auto done) { mDisk.list(*inside, std::move(done)); });
      if (left && left->entries().size() > 2) return Errno{ENOTEMPTY};
    }
    return Errno{refusal(EACCES)};
  }
}

}  // namespace zor::client
