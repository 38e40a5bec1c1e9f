// Whole directories.
#include <algorithm>
#include <chrono>
#include <utility>

#include "drive/drive.h"

namespace zor::client {

namespace {

/// A check compares whole seconds: a file that was changed this shortly before
/// it was listed may change again without that it shows.
constexpr std::int64_t kRecentSeconds = 3;

constexpr std::chrono::seconds kLongListing{1};

constexpr std::uint32_t kListMode = 0555;

bool changedRecently(const Entries& entries) {
  const std::int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
  return std::any_of(entries.begin(), entries.end(), [now](const auto& place) {
    const std::int64_t modified = place.second.attributes.st_mtim.tv_sec;
    return modified > now - kRecentSeconds && modified < now + kRecentSeconds;
  });
}

}  // namespace

Outcome<Unit> Drive::refreshDirectory(Lock& lock, NodeId id) {
  for (;;) {
    const Outcome<Node*> node = directoryNode(id);
    if (!node) return node.error();
    Directory& known = *(*node)->directory;
    if (isFresh(known)) return Unit{};
    if (!known.load.valid()) break;
    const std::shared_future<void> underWay = known.load;
    lock.unlock();
    underWay.wait();
    lock.lock();
    waitForNames(lock);
  }
  Node& node = *mTree.find(id);
  std::promise<void> loaded;
  node.directory->load = loaded.get_future().share();
  ++node.references;
  const std::optional<std::string> path = mTree.path(node);
  const Clock::time_point begun = Clock::now();
  Outcome<Unit> result = load(lock, id, *path);
  // What takes long to learn counts for as long: a walk would never end else.
  const Clock::duration taken = Clock::now() - begun;
  node.directory->lifetime = taken < kLongListing
                                 ? mOptions.attributeTimeout
                                 : std::max<Clock::duration>(mOptions.attributeTimeout, taken);
  --node.references;
  node.directory->load = {};
  loaded.set_value();
  if (!result) mTree.releaseIfUnused(&node);
  return result;
}

Outcome<Unit> Drive::load(Lock& lock, NodeId id, const std::string& path) {
  std::uint64_t epoch = mLinkEpoch;
  const auto take = [this, id, &epoch](const Listing& listing) {
    Node& node = *mTree.find(id);
    mTree.merge(node, listing, Clock::now(), epoch);
    node.directory->recent = changedRecently(node.directory->entries);
  };
  Directory& known = *mTree.find(id)->directory;
  std::optional<Listing> old;
  if (known.complete && !known.recent && Clock::now() - known.listed < kListAgainAfter) {
    const Node* parent = mTree.find(id)->parent;
    if (parent != nullptr && parent->directory->selfConfirmed > known.confirmed) {
      known.parent = parent->directory->self;
    }
    old = composeListing(known);
  }
  if (old) {
    ++mCounters.dirChecks;
    const Result<DirCheck> check = ask<DirCheck>(
        lock, [&](auto done) { mDisk.checkDir(path, *old, std::move(done)); },
        [this, id, &take](Result<DirCheck>& result) {
          if (!result) return;
          Directory& directory = *mTree.find(id)->directory;
          if (!result->changed) {
            ++mCounters.dirUnchanged;
            directory.confirmed = Clock::now();
            directory.selfConfirmed = directory.confirmed;
            directory.singles = 0;
          } else if (!result->fresh.entries().empty()) {
            take(result->fresh);
          } else {
            directory.complete = false;
          }
        });
    if (check && mTree.find(id)->directory->complete) return Unit{};
    // Too large to be compared, or gone: the listing tells.
    if (!check && check.error().kind == ErrorKind::kLinkLost) return Errno{EIO};
  }
  waitForNames(lock);
  const std::optional<std::string> present = mTree.path(*mTree.find(id));
  if (!present) return Errno{ENOENT};
  epoch = mLinkEpoch;
  const Result<Listing> listing = ask<Listing>(
      lock, [&](auto done) { mDisk.list(*present, std::move(done)); },
      [this, id, &take](Result<Listing>& result) {
        if (result) {
          take(*result);
        } else if (result.error().kind == ErrorKind::kFailed) {
          mTree.find(id)->directory->complete = false;
        }
      });
  if (listing) return Unit{};
  if (listing.error().kind != ErrorKind::kFailed) return Errno{EIO};
  const Node* node = mTree.find(id);
  if (node->parent == nullptr) return Errno{EIO};
  const Presence seen = look(lock, node->parent->id, std::string(node->place->first));
  if (seen.isAbsent()) return Errno{ENOENT};
  // A directory that everybody may read was not refused for its permissions.
  const bool open = seen.isUnknown() || (seen.attributes().st_mode & kListMode) == kListMode;
  return Errno{open ? EIO : EACCES};
}

Outcome<DirectorySnapshot> Drive::openDirectory(NodeId id) {
  Lock lock = lockNames();
  const Outcome<Unit> fresh = refreshDirectory(lock, id);
  if (!fresh) return fresh.error();
  if (mTree.find(id)->directory->young > 0) {
    // Behind this answer, all files that were made before are known.
    Burst burst(*this);
    burst.queryDirectory(id);
    burst.wait(lock);
    if (const Outcome<Node*> still = directoryNode(id); !still) return still.error();
  }
  return snapshotOf(*mTree.find(id)->directory);
}

std::pair<std::uint64_t, std::uint64_t> Drive::dotNumbers(NodeId id) {
  const std::lock_guard lock(mMutex);
  const Node* node = mTree.find(id);
  if (node == nullptr || !node->directory) return {};
  const Node& above = node->parent == nullptr ? *node : *node->parent;
  return {node->directory->self.st_ino, above.directory->self.st_ino};
}

NodeEntry Drive::enter(NodeId directory, const DirectoryItem& item) {
  const Lock lock(mMutex);
  Node* node = mTree.find(directory);
  if (node == nullptr || !node->directory) return {};
  Entries& entries = node->directory->entries;
  const auto at = entries.find(item.name);
  if (at == entries.end() || at->second.hidden || at->second.attributes.st_mode == 0) return {};
  ++mCounters.cacheHits;
  return enterLocked(*node, *at);
}

}  // namespace zor::client
