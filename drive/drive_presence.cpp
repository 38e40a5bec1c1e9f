// Whether names exist. A backup program removes what it no longer finds, so a disk
// that fails must never look like one whose files were deleted.
#include <algorithm>
#include <utility>

#include "client/remote_path.h"
#include "drive/drive.h"

namespace zor::client {

namespace {

/// A directory that was never listed is not listed for one name if it is as large.
constexpr std::int64_t kMaxUnlisted = 256 << 10;

constexpr std::chrono::milliseconds kMinDispute{1000};

constexpr std::uint32_t kSearchMode = 0111;

}  // namespace

Presence Drive::presenceAt(Lock& lock, const std::string& path) {
  const Result<Presence> seen = ask<Presence>(
      lock, [&](auto done) { queryPresence(mDisk, path, std::move(done)); }, [](auto&) {});
  return *seen;
}

/// Asks the host about a name, whatever is known of it.
Presence Drive::look(Lock& lock, NodeId directory, const std::string& name) {
  waitForNames(lock);
  const Node* node = mTree.find(directory);
  const std::optional<std::string> path = node == nullptr ? std::nullopt : mTree.path(*node);
  if (!path) return Presence::absent();  // with its directory
  const Result<Presence> seen = ask<Presence>(
      lock, [&](auto done) { queryPresence(mDisk, joinPath(*path, name), std::move(done)); },
      [this, directory, name, epoch = mLinkEpoch](Result<Presence>& answer) {
        if (answer->isPresent()) learn(directory, name, answer->attributes(), epoch);
      });
  if (seen->isAbsent()) return confirmAbsence(lock, directory, name);
  if (seen->isUnknown() && isRemoved(lock, directory)) return Presence::absent();
  return *seen;
}

/// A directory in the host's cache can be queried although the disk has failed, and
/// what lies in it cannot. So a name that was there before is absent only when a new
/// listing of the directory does not have it.
Presence Drive::confirmAbsence(Lock& lock, NodeId id, const std::string& name) {
  waitForNames(lock);
  const auto entryNow = [&]() -> Entry* {
    Node* node = mTree.find(id);
    if (node == nullptr || !node->directory || !mTree.has(*node)) return nullptr;
    const auto at = node->directory->entries.find(name);
    return at == node->directory->entries.end() ? nullptr : &at->second;
  };
  const Entry* entry = entryNow();
  if (entry == nullptr || entry->changing) return Presence::absent();
  Node& node = *mTree.find(id);
  Directory& known = *node.directory;
  const bool canBeListed = known.listed != Clock::time_point();
  if (!canBeListed && known.self.st_size > kMaxUnlisted) {
    mTree.remove(node, name);
    return Presence::absent();
  }
  const auto dispute = std::max(mOptions.attributeTimeout, kMinDispute);
  if (entry->unreadable && Clock::now() - known.disputed < dispute) return Presence::unknown();
  ++node.references;
  while (known.load.valid()) {
    const std::shared_future<void> older = known.load;
    lock.unlock();
    older.wait();
    lock.lock();
    waitForNames(lock);
  }
  known.lifetime = {};
  const Outcome<Unit> listed = refreshDirectory(lock, id);
  entry = entryNow();
  Presence seen = Presence::absent();
  if (!listed && listed.error().value != ENOENT && listed.error().value != ESTALE) {
    // Of a directory that may be searched but not read, the query is all there is.
    if (canBeListed) {
      seen = Presence::unknown();
    } else {
      mTree.remove(node, name);
    }
  } else if (entry != nullptr && !entry->changing) {
    seen = entry->unreadable ? Presence::unknown() : Presence::present(entry->attributes);
  }
  if (seen.isUnknown()) known.disputed = Clock::now();
  --node.references;
  mTree.releaseIfUnused(&node);
  return seen;
}

/// In a directory that not everybody may search, and in which nothing can be queried,
/// the permissions are the reason, and not the disk.
int Drive::whyUnknown(NodeId id) const {
  const Node* node = mTree.find(id);
  if (node == nullptr || node->place == nullptr || !node->directory) return EIO;
  const Entries& entries = node->directory->entries;
  const bool searched = (node->place->second.attributes.st_mode & kSearchMode) == kSearchMode ||
                        std::any_of(entries.begin(), entries.end(),
                                    [](const auto& e) { return !e.second.unreadable; });
  return searched || entries.empty() ? EIO : EACCES;
}

/// Whether a directory that cannot be queried is gone itself.
bool Drive::isRemoved(Lock& lock, NodeId id) {
  if (id == kRootNode) return false;
  const bool diskAnswers =
      ask<udisk_stat>(
          lock, [&](auto done) { mDisk.attributes("/", std::move(done)); }, [](auto&) {})
          .ok();
  if (!diskAnswers) return false;
  waitForNames(lock);
  const Node* node = mTree.find(id);
  if (node == nullptr || node->parent == nullptr) return true;
  const NodeId above = node->parent->id;
  const std::string name = node->place->first;
  return look(lock, above, name).isAbsent();
}

}  // namespace zor::client
