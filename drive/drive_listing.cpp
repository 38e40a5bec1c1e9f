// Whole directories.
#include <chrono>
#include <utility>

#include "drive/drive.h"

namespace zor::client {

namespace {

constexpr std::uint32_t kListMode = 0555;

}  // namespace

void Drive::waitForLoad(NodeId id) {
  const std::shared_future<void> load = mNames.find(id)->directory->load;
  mMutex.unlock();
  load.wait();
  mMutex.lock();
  mGate.waitUntilOpen();
}

Outcome<Unit> Drive::refreshDirectory(NodeId id) {
  for (;;) {
    const Outcome<Node*> node = directoryNode(id);
    if (!node) return node.error();
    if (mNames.isValid(*(*node)->directory)) return Unit{};
    if (!(*node)->directory->load.valid()) break;
    waitForLoad(id);
  }
  Node& node = *mNames.find(id);
  std::promise<void> loaded;
  node.directory->load = loaded.get_future().share();
  ++node.references;
  const Clock::time_point begun = mNames.now();
  Outcome<Unit> result = load(id);
  mNames.setLifetime(*node.directory, mNames.now() - begun);
  --node.references;
  node.directory->load = {};
  loaded.set_value();
  if (!result) mNames.releaseIfUnused(&node);
  return result;
}

/// True when the directory is known completely now: unchanged, or with its new listing.
bool Drive::check(NodeId id, bool& lost) {
  Node& node = *mNames.find(id);
  Directory& known = *node.directory;
  if (!mNames.canBeChecked(known)) return false;
  if (node.parent != nullptr && node.parent->directory->selfConfirmed > known.confirmed) {
    known.parent = node.parent->directory->self;
  }
  const std::optional<Listing> old = composeListing(known);
  if (!old) return false;
  CompoundRequest request(mHost);
  const PathLease* at = request.at(id);
  if (at == nullptr) return false;
  ++mCounters.dirChecks;
  const Result<DirCheck> check =
      request.get<DirCheck>([&](auto done) { mDisk.checkDir(*at, *old, std::move(done)); },
                            [this, &node, epoch = mNames.linkEpoch()](Result<DirCheck>& result) {
                              mMutex.assertHeld();
                              if (!result) return;
                              if (!result->changed) {
                                ++mCounters.dirUnchanged;
                                mNames.confirm(node);
                              } else if (!result->fresh.entries().empty()) {
                                mNames.learnListing(node, result->fresh, epoch);
                              } else {
                                node.directory->complete = false;
                              }
                            });
  lost = !check && check.error().kind == ErrorKind::kLinkLost;
  return check && known.complete;
}

/// With a reference to the node.
Outcome<Unit> Drive::load(NodeId id) {
  bool lost = false;
  if (check(id, lost)) return Unit{};
  // Too large to be compared, or gone: the listing shows which.
  if (lost) return Errno{EIO};
  CompoundRequest request(mHost);
  const PathLease* at = request.at(id);
  if (at == nullptr) return Errno{ENOENT};
  const Node& node = *mNames.find(id);
  const Result<Listing> listing =
      request.get<Listing>([&](auto done) { mDisk.list(*at, std::move(done)); },
                           [this, id, epoch = mNames.linkEpoch()](Result<Listing>& result) {
                             mMutex.assertHeld();
                             Node& listed = *mNames.find(id);
                             if (result) {
                               mNames.learnListing(listed, *result, epoch);
                             } else if (result.error().kind == ErrorKind::kFailed) {
                               listed.directory->complete = false;
                             }
                           });
  if (listing) return Unit{};
  if (listing.error().kind != ErrorKind::kFailed || node.parent == nullptr) return Errno{EIO};
  const NodeId above = node.parent->id;
  const Presence seen = revalidate(above, std::string(node.name()));
  if (seen.isAbsent()) return Errno{ENOENT};
  // A directory that everybody may read was not refused for its permissions.
  const bool open = seen.isUnknown() || (seen.attributes().st_mode & kListMode) == kListMode;
  return Errno{open ? EIO : EACCES};
}

Outcome<DirectorySnapshot> Drive::openDirectory(NodeId id) {
  const MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  const Outcome<Unit> fresh = refreshDirectory(id);
  if (!fresh) return fresh.error();
  if (mNames.find(id)->directory->creating > 0) {
    // Behind this reply, all files that were created before are known.
    CompoundRequest request(mHost);
    request.queryDirectory(id);
    request.wait();
    if (const Outcome<Node*> still = directoryNode(id); !still) return still.error();
  }
  return snapshotOf(*mNames.find(id)->directory);
}

std::pair<std::uint64_t, std::uint64_t> Drive::dotNumbers(NodeId id) {
  const MutexLock lock(mMutex);
  const Node* node = mNames.find(id);
  if (node == nullptr || !node->directory) return {};
  const Node& above = node->parent == nullptr ? *node : *node->parent;
  return {node->directory->self.st_ino, above.directory->self.st_ino};
}

NodeEntry Drive::enter(NodeId directory, const DirectoryItem& item) {
  const MutexLock lock(mMutex);
  Entries::value_type* place = mNames.findPlace(directory, item.name);
  if (place == nullptr || place->second.silly || place->second.attributes.st_mode == 0) return {};
  ++mCounters.cacheHits;
  return enterLocked(*mNames.find(directory), *place);
}

}  // namespace zor::client
