// Whether names exist. A backup program removes what it no longer finds, so a disk that
// fails must never look like one whose files were deleted.
#include <algorithm>

#include "drive/drive.h"

namespace zor::client {

namespace {

/// A directory that was never listed is not listed for one name if it is as large.
constexpr std::int64_t kMaxUnlisted = 256 << 10;

constexpr std::chrono::milliseconds kMinDispute{1000};

constexpr std::uint32_t kSearchMode = 0111;

}  // namespace

Presence Drive::presenceAt(NodeId directory, const std::string& name, const Rename* rename) {
  CompoundRequest request(mHost, rename);
  const PathLease* at = request.at(directory, name);
  if (at == nullptr) return Presence::absent();
  return *request.get<Presence>([&](auto done) { mDisk.presence(*at, std::move(done)); });
}

/// Asks the host about a name, whatever is known of it.
Presence Drive::revalidate(NodeId directory, const std::string& name) {
  CompoundRequest request(mHost);
  const PathLease* at = request.at(directory, name);
  if (at == nullptr) return Presence::absent();  // with its directory
  const Result<Presence> seen = request.get<Presence>(
      [&](auto done) { mDisk.presence(*at, std::move(done)); },
      [this, directory, &name, epoch = mNames.linkEpoch()](Result<Presence>& reply) {
        mMutex.assertHeld();
        if (reply->isPresent()) mNames.learn(directory, name, reply->attributes(), epoch);
      });
  if (seen->isAbsent()) return confirmAbsence(directory, name);
  if (seen->isUnknown() && isRemoved(directory)) return Presence::absent();
  return *seen;
}

/// A directory in the host's cache can be queried although the disk has failed, and what
/// lies in it cannot. So a name that was there before is absent only when a new listing of
/// the directory does not have it.
Presence Drive::confirmAbsence(NodeId id, const std::string& name) {
  mGate.waitUntilOpen();
  const auto entryNow = [&]() -> Entry* {
    mMutex.assertHeld();
    const Outcome<Node*> node = directoryNode(id);
    Entry* entry = node ? mNames.findEntry(id, name) : nullptr;
    return entry == nullptr || entry->pending ? nullptr : entry;
  };
  const Entry* entry = entryNow();
  if (entry == nullptr) return Presence::absent();
  Node& node = *mNames.find(id);
  Directory& known = *node.directory;
  const bool canBeListed = known.listed != Clock::time_point();
  if (!canBeListed && known.self.st_size > kMaxUnlisted) {
    mNames.remove(node, name);
    return Presence::absent();
  }
  const auto dispute = std::max(mOptions.attributeTimeout, kMinDispute);
  if (entry->unreadable && mNames.now() - known.disputed < dispute) return Presence::unknown();
  ++node.references;
  while (known.load.valid()) waitForLoad(id);
  known.lifetime = {};
  const Outcome<Unit> listed = refreshDirectory(id);
  entry = entryNow();
  Presence seen = Presence::absent();
  if (!listed && listed.error().value != ENOENT && listed.error().value != ESTALE) {
    // Of a directory that may be searched but not read, the query is all there is.
    if (canBeListed) {
      seen = Presence::unknown();
    } else {
      mNames.remove(node, name);
    }
  } else if (entry != nullptr) {
    seen = entry->unreadable ? Presence::unknown() : Presence::present(entry->attributes);
  }
  if (seen.isUnknown()) known.disputed = mNames.now();
  --node.references;
  mNames.releaseIfUnused(&node);
  return seen;
}

/// In a directory that not everybody may search, and in which nothing can be queried, the
/// permissions are the reason, and not the disk.
int Drive::whyUnknown(NodeId id) {
  const Node* node = mNames.find(id);
  if (node == nullptr || node->place == nullptr || !node->directory) return EIO;
  const Entries& entries = node->directory->entries;
  const bool searched = (node->entry().attributes.st_mode & kSearchMode) == kSearchMode ||
                        std::any_of(entries.begin(), entries.end(),
                                    [](const auto& place) { return !place.second.unreadable; });
  return searched || entries.empty() ? EIO : EACCES;
}

/// Whether a directory that cannot be queried is gone itself.
bool Drive::isRemoved(NodeId id) {
  if (id == kRootNode) return false;
  {
    CompoundRequest request(mHost);
    const PathLease* root = request.at(kRootNode);
    const auto disk =
        request.get<udisk_stat>([&](auto done) { mDisk.attributes(*root, std::move(done)); });
    if (!disk) return false;
  }
  mGate.waitUntilOpen();
  const Node* node = mNames.find(id);
  if (node == nullptr || node->parent == nullptr) return true;
  const NodeId above = node->parent->id;
  const std::string name = node->name();
  return revalidate(above, name).isAbsent();
}

}  // namespace zor::client
