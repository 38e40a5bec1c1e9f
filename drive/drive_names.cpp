// Names and attributes.
#include <algorithm>
#include <utility>

#include "client/remote_path.h"
#include "drive/drive.h"

namespace zor::client {

namespace {

/// What an entry adds to a listing, about.
constexpr std::uint64_t kEntrySize = 150;

/// A directory that was never listed is listed for the sake of one name, unless
/// its own size tells that this would be much.
constexpr std::int64_t kLargeDirectory = 256 << 10;

/// Whether to ask for the whole directory rather than for one name, when the
/// time that a question about one name takes would carry `single` bytes.
bool worthWhole(const Directory& directory, std::uint64_t single) {
  if (!directory.complete) return directory.self.st_size <= kLargeDirectory;
  return directory.entries.size() * kEntrySize <= single * (1 + directory.singles);
}

}  // namespace

Outcome<NodeEntry> Drive::lookup(NodeId directory, std::string_view name) {
  Lock lock = lockNames();
  if (isPathTooLong(directory, name)) return Errno{ENAMETOOLONG};
  for (int asked = 0;; ++asked) {
    const Outcome<Node*> parent = directoryNode(directory);
    if (!parent) return parent.error();
    const std::string key = spelling(**parent, name);
    Directory& known = *(*parent)->directory;
    const auto at = known.entries.find(key);
    const bool found = at != known.entries.end();
    if (found && at->second.hidden) return NodeEntry{};
    if (!found && isFresh(known) && learnSpelling(lock, directory)) {
      --asked;
      continue;
    }
    if (found
            ? asked > 1 || isFresh(**parent, at->second) || (asked == 1 && !isDoubtful(at->second))
            : asked > 0 || isFresh(known)) {
      ++(asked == 0 ? mCounters.cacheHits : mCounters.cacheMisses);
      if (found) return enterLocked(**parent, *at);
      return NodeEntry{
          0,
          {},
          std::max(std::chrono::nanoseconds(0),
                   std::chrono::nanoseconds(known.confirmed + known.lifetime - Clock::now())),
          mAnyCase == true};
    }
    if (asked == 0) {
      const Outcome<Unit> refreshed = refresh(lock, directory, key);
      if (!refreshed) return refreshed.error();
    } else {
      if (look(lock, directory, key).isUnknown()) return Errno{whyUnknown(directory)};
    }
  }
}

/// Asks the host in the way that tells most for its cost.
Outcome<Unit> Drive::refresh(Lock& lock, NodeId directory, const std::string& name) {
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  Directory& known = *(*parent)->directory;
  // A chunk takes up to 200 ms, a question some tens.
  const std::uint64_t chunk = mReadWindow.chunkSize();
  const auto at = known.entries.find(name);
  if (at != known.entries.end() && isDirectory(at->second.attributes) && !at->second.stale) {
    // Its own listing tells whether it is still there, and will be wanted next.
    Node& child = mTree.nodeAt(**parent, *at);
    child.directory->self = at->second.attributes;
    if (worthWhole(*child.directory, chunk)) {
      const NodeId id = child.id;
      ++child.references;
      const Outcome<Unit> listed = refreshDirectory(lock, id);
      if (Node* still = mTree.find(id); still != nullptr) {
        --still->references;
        if (!listed) mTree.releaseIfUnused(still);
      }
      if (listed) return listed;
    }
  } else if (worthWhole(known, chunk / 2)) {
    const Outcome<Unit> listed = refreshDirectory(lock, directory);
    if (listed) return listed;
  }
  if (Node* still = mTree.find(directory); still != nullptr) ++still->directory->singles;
  if (look(lock, directory, name).isUnknown()) return Errno{whyUnknown(directory)};
  return Unit{};
}

void Drive::forget(NodeId id, std::uint64_t references) {
  const std::lock_guard lock(mMutex);
  Node* node = mTree.find(id);
  if (node == nullptr) return;
  node->references -= std::min(node->references, references);
  mTree.releaseIfUnused(node);
}

Outcome<NodeAttributes> Drive::rootAttributes(Lock& lock) {
  Directory& root = *mTree.root().directory;
  const auto left = [&] {
    return std::chrono::nanoseconds(root.selfConfirmed + mOptions.attributeTimeout - Clock::now());
  };
  const auto shown = [&] {
    NodeAttributes result{root.self, std::max(std::chrono::nanoseconds(0), left())};
    result.attributes.st_nlink = std::max<std::uint64_t>(result.attributes.st_nlink, 1);
    return result;
  };
  if (left().count() > 0 && root.self.st_mode != 0) {
    ++mCounters.cacheHits;
    return shown();
  }
  ++mCounters.cacheMisses;
  bool known = false;
  if (worthWhole(root, mReadWindow.chunkSize() / 2))
    known = refreshDirectory(lock, kRootNode).ok() && root.self.st_mode != 0;
  if (!known) {
    ++root.singles;
    const Result<udisk_stat> self = ask<udisk_stat>(
        lock, [&](auto done) { mDisk.attributes("/", std::move(done)); },
        [this](auto& result) { learnSelf(kRootNode, result); });
    if (!self) return Errno{EIO};
  }
  return shown();
}

/// Brings what programs wrote to the host and learns what the file is like then. While
/// others go on writing there is no end to that, so this asks once.
Outcome<Unit> Drive::catchUp(Lock& lock, NodeId id) {
  Node* node = nullptr;
  const auto isAhead = [&] {
    node = mTree.find(id);
    return node != nullptr && node->place != nullptr && node->file && node->file->ahead;
  };
  // The question behind a creation is on its way already.
  mSettled.wait(lock, [&] { return !isAhead() || !node->file->young || node->file->writes > 0; });
  waitForNames(lock);
  if (!isAhead()) return Unit{};
  if (!node->file->gather.empty()) sendGathered(*node);
  const std::string name = node->place->first;
  if (look(lock, node->parent->id, name).isUnknown()) return Errno{EIO};
  return Unit{};
}

Outcome<NodeAttributes> Drive::attributes(NodeId id, bool asOfNow) {
  Lock lock = lockNames();
  if (id == kRootNode) return rootAttributes(lock);
  if (asOfNow) {
    if (const Outcome<Unit> done = catchUp(lock, id); !done) return done.error();
  }
  for (int asked = 0;; ++asked) {
    const Node* node = mTree.find(id);
    if (node != nullptr && node->removed) {
      return NodeAttributes{*node->removed, mOptions.attributeTimeout};
    }
    if (node == nullptr || !mTree.has(*node)) return Errno{ESTALE};
    const Entry& entry = node->place->second;
    if (asked > 1 || isFresh(*node->parent, entry) || (asked == 1 && !isDoubtful(entry))) {
      ++(asked == 0 ? mCounters.cacheHits : mCounters.cacheMisses);
      return NodeAttributes{visible(entry), kernelValidity(*node->parent, entry)};
    }
    const NodeId directory = node->parent->id;
    const std::string name = node->place->first;
    // A comparison of the directory does not show that an open file was replaced.
    const bool open = node->file && node->file->handles > 0;
    if (asked == 0 && !isDoubtful(entry) && !open) {
      const Outcome<Unit> refreshed = refresh(lock, directory, name);
      if (!refreshed) return refreshed.error();
    } else {
      if (look(lock, directory, name).isUnknown()) return Errno{EIO};
    }
  }
}

Outcome<udisk_statvfs> Drive::statistics() {
  Lock lock(mMutex);
  for (bool again = false;; again = true) {
    Burst burst(*this);
    Result<udisk_statvfs> result = Error{};
    // A failure is repeated until something changes: this changes nothing, but counts.
    if (again) burst.add<Unit>([&](auto done) { mDisk.fsync("/", std::move(done)); }, [](auto&) {});
    burst.add<udisk_statvfs>([&](auto done) { mDisk.statfs("/", std::move(done)); },
                             [&result](auto& answer) { result = std::move(answer); });
    burst.wait(lock);
    if (result) return *result;
    if (again || result.error().kind != ErrorKind::kUnreadable) return Errno{EIO};
  }
}

}  // namespace zor::client
