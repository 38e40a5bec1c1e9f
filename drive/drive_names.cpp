// Names and attributes.
#include <algorithm>
#include <utility>

#include "drive/drive.h"

namespace zor::client {

namespace {

/// What an entry adds to a listing, about.
constexpr std::uint64_t kEntrySize = 150;

/// A directory that was never listed is listed for the sake of one name, unless its own
/// size shows that this would be much.
constexpr std::int64_t kLargeDirectory = 256 << 10;

/// Whether to ask for the whole directory rather than for one name, when the time that a
/// query for one name takes would carry `single` bytes.
bool isWorthListing(const Directory& directory, std::uint64_t single) {
  if (!directory.complete) return directory.self.st_size <= kLargeDirectory;
  return directory.entries.size() * kEntrySize <= single * (1 + directory.singles);
}

}  // namespace

Outcome<NodeEntry> Drive::lookup(NodeId directory, std::string_view name) {
  const MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  if (isPathTooLong(directory, name)) return Errno{ENAMETOOLONG};
  for (int asked = 0;; ++asked) {
    const Outcome<Node*> parent = directoryNode(directory);
    if (!parent) return parent.error();
    const std::string key = mNames.spelling(**parent, name);
    Directory& known = *(*parent)->directory;
    Entries::value_type* place = mNames.findPlace(directory, key);
    if (place != nullptr && place->second.silly) return NodeEntry{};
    if (place == nullptr && mNames.isValid(known) && learnSpelling(directory)) {
      --asked;
      continue;
    }
    const bool valid = place == nullptr ? asked > 0 || mNames.isValid(known)
                                        : asked > 1 || mNames.isValid(**parent, place->second) ||
                                              (asked == 1 && !mNames.isStale(place->second));
    if (valid) {
      ++(asked == 0 ? mCounters.cacheHits : mCounters.cacheMisses);
      if (place != nullptr) return enterLocked(**parent, *place);
      return NodeEntry{0, {}, mNames.absenceValidity(known), mNames.ignoresCase()};
    }
    if (asked == 0) {
      const Outcome<Unit> refreshed = refresh(directory, key);
      if (!refreshed) return refreshed.error();
    } else if (revalidate(directory, key).isUnknown()) {
      return Errno{whyUnknown(directory)};
    }
  }
}

/// Finds out, once, how the disk takes names. False when nothing was learned here.
bool Drive::learnSpelling(NodeId directory) {
  const auto names = mNames.spellingToTry(*mNames.find(directory));
  if (!names) return false;
  const udisk_stat known = mNames.findEntry(directory, names->first)->attributes;
  const Presence other = presenceAt(directory, names->second);
  mGate.waitUntilOpen();
  if (other.isUnknown()) return false;
  mNames.learnSpelling(known, other.isPresent() ? std::optional(other.attributes()) : std::nullopt);
  return true;
}

/// Asks the host in the way that returns most for its cost.
Outcome<Unit> Drive::refresh(NodeId directory, const std::string& name) {
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  Directory& known = *(*parent)->directory;
  // A chunk takes up to 200 ms, a query some tens.
  const std::uint64_t chunk = mReadWindow.chunkSize();
  Entries::value_type* place = mNames.findPlace(directory, name);
  if (place != nullptr && isDirectory(place->second.attributes) && !place->second.stale) {
    // Its own listing shows whether it is still there, and will be wanted next.
    Node& child = mNames.nodeAt(**parent, *place);
    child.directory->self = place->second.attributes;
    if (isWorthListing(*child.directory, chunk)) {
      const NodeId id = child.id;
      ++child.references;
      const Outcome<Unit> listed = refreshDirectory(id);
      if (Node* still = mNames.find(id); still != nullptr) {
        --still->references;
        if (!listed) mNames.releaseIfUnused(still);
      }
      if (listed) return listed;
    }
  } else if (isWorthListing(known, chunk / 2)) {
    const Outcome<Unit> listed = refreshDirectory(directory);
    if (listed) return listed;
  }
  if (Node* still = mNames.find(directory); still != nullptr) ++still->directory->singles;
  if (revalidate(directory, name).isUnknown()) return Errno{whyUnknown(directory)};
  return Unit{};
}

Outcome<NodeAttributes> Drive::rootAttributes() {
  Directory& root = *mNames.root().directory;
  if (mNames.selfValidity(root).count() > 0) {
    ++mCounters.cacheHits;
  } else {
    ++mCounters.cacheMisses;
    bool known = false;
    if (isWorthListing(root, mReadWindow.chunkSize() / 2)) {
      known = refreshDirectory(kRootNode).ok() && root.self.st_mode != 0;
    }
    if (!known) {
      ++root.singles;
      CompoundRequest request(mHost);
      const PathLease* at = request.at(kRootNode);
      const Result<udisk_stat> self =
          request.get<udisk_stat>([&](auto done) { mDisk.attributes(*at, std::move(done)); },
                                  [this](auto& result) {
                                    mMutex.assertHeld();
                                    mNames.learnSelf(kRootNode, result);
                                  });
      if (!self) return Errno{EIO};
    }
  }
  NodeAttributes result{root.self, mNames.selfValidity(root)};
  result.attributes.st_nlink = std::max<std::uint64_t>(result.attributes.st_nlink, 1);
  return result;
}

/// Brings what programs wrote to the host and learns what the file is like then. While
/// others go on writing there is no end to that, so this asks once.
Outcome<Unit> Drive::catchUp(NodeId id) {
  Node* node = nullptr;
  const auto isDirty = [&] {
    mMutex.assertHeld();
    node = mNames.find(id);
    return node != nullptr && node->place != nullptr && node->open && node->open->dirty;
  };
  // The query behind a creation is on its way already.
  if (isDirty() && stateOf(*node)->writes == 0) mWriteBack.waitForCreation(*node);
  mGate.waitUntilOpen();
  if (!isDirty()) return Unit{};
  mWriteBack.send(*node);
  const NodeId directory = node->parent->id;
  if (revalidate(directory, std::string(node->name())).isUnknown()) return Errno{EIO};
  return Unit{};
}

Outcome<NodeAttributes> Drive::attributes(NodeId id, bool asOfNow) {
  const MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  if (id == kRootNode) return rootAttributes();
  if (asOfNow) {
    if (const Outcome<Unit> done = catchUp(id); !done) return done.error();
  }
  for (int asked = 0;; ++asked) {
    const Node* node = mNames.find(id);
    if (node != nullptr && node->removed) {
      return NodeAttributes{*node->removed, mOptions.attributeTimeout};
    }
    if (node == nullptr || !mNames.has(*node)) return Errno{ESTALE};
    const Entry& entry = node->entry();
    const bool stale = mNames.isStale(entry);
    if (asked > 1 || mNames.isValid(*node->parent, entry) || (asked == 1 && !stale)) {
      ++(asked == 0 ? mCounters.cacheHits : mCounters.cacheMisses);
      return NodeAttributes{mNames.shown(entry), mNames.kernelValidity(*node->parent, entry)};
    }
    const NodeId directory = node->parent->id;
    const std::string name = node->name();
    // A check of the directory does not show that an open file was replaced.
    const bool open = node->open && node->open->handles > 0;
    if (asked == 0 && !stale && !open) {
      const Outcome<Unit> refreshed = refresh(directory, name);
      if (!refreshed) return refreshed.error();
    } else if (revalidate(directory, name).isUnknown()) {
      return Errno{EIO};
    }
  }
}

Outcome<udisk_statvfs> Drive::statfs() {
  const MutexLock lock(mMutex);
  for (bool again = false;; again = true) {
    CompoundRequest request(mHost);
    const PathLease* root = request.at(kRootNode);
    // A failure is repeated until something changes: this changes nothing, but counts.
    if (again) {
      request.add<Unit>([&](auto done) { mDisk.fsync(*root, std::move(done)); }, [](auto&) {});
    }
    Result<udisk_statvfs> result =
        request.get<udisk_statvfs>([&](auto done) { mDisk.statfs(*root, std::move(done)); });
    if (result) return *result;
    if (again || result.error().kind != ErrorKind::kUnreadable) return Errno{EIO};
  }
}

}  // namespace zor::client
