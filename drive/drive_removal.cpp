// Names that go, or become others.
#include <fcntl.h>
#include <stdio.h>

#include <utility>

#include "client/remote_path.h"
#include "drive/drive.h"

namespace zor::client {

namespace {

/// For what was lost on the way: a host that comes back as often may not stay.
constexpr int kMaxAttempts = 10;

bool isBelow(const Node* node, const Node& above) {
  while (node != nullptr && node != &above) node = node->parent;
  return node != nullptr;
}

}  // namespace

Outcome<Unit> Drive::unlink(NodeId directory, std::string_view name) {
  Lock lock = lockNames();
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const std::string key = spelling(**parent, name);
  const auto at = (*parent)->directory->entries.find(key);
  if (at != (*parent)->directory->entries.end() && at->second.node != nullptr) {
    const Node& node = *at->second.node;
    if (node.file && node.file->handles > 0) return hide(lock, directory, key, hiddenName());
    if (node.file) {
      const Outcome<Unit> settled = settle(lock, node.id, false);
      if (!settled) return settled.error();
    }
  }
  return removeName(lock, directory, key, false);
}

Outcome<Unit> Drive::removeDirectory(NodeId directory, std::string_view name) {
  Lock lock = lockNames();
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  return removeName(lock, directory, spelling(**parent, name), true);
}

Outcome<Unit> Drive::removeName(Lock& lock, NodeId directory, const std::string& name, bool isDir) {
  for (int attempt = 0;; ++attempt) {
    waitForNames(lock);
    const Outcome<Node*> parent = directoryNode(directory);
    if (!parent) return parent.error();
    const std::string path = joinPath(*mTree.path(**parent), name);
    Status removed = Unit{};
    ++mLinkEpoch;
    Burst burst(*this);
    burst.add<Unit>(
        [&](auto done) {
          if (isDir) {
            mDisk.removeDir(path, std::move(done));
          } else {
            mDisk.unlink(path, std::move(done));
          }
        },
        [this, directory, &name, &removed](Status& status) {
          removed = status;
          if (!status) return;
          keepRemoved(directory, name);
          if (Node* node = mTree.find(directory)) mTree.remove(*node, name);
        });
    burst.queryDirectory(directory);
    burst.wait(lock);
    if (removed) return Unit{};
    // Refused, or lost on the way: looking tells which.
    const Presence seen = look(lock, directory, name);
    const bool lost = removed.error().kind != ErrorKind::kFailed;
    if (seen.isUnknown()) return Errno{EIO};
    if (seen.isAbsent()) {
      if (lost) return Unit{};
      return Errno{ENOENT};
    }
    if (lost && attempt < kMaxAttempts) continue;
    if (lost) return Errno{EIO};
    if (isDir != isDirectory(seen.attributes())) return Errno{isDir ? ENOTDIR : EISDIR};
    if (isDir) {
      const Result<Listing> inside = ask<Listing>(
          lock, [&](auto done) { mDisk.list(path, std::move(done)); }, [](auto&) {});
      if (inside && inside->entries().size() > 2) return Errno{ENOTEMPTY};
    }
    return Errno{refusal(lock, EACCES)};
  }
}

/// A program may ask its own descriptor about what was removed.
void Drive::keepRemoved(NodeId directory, const std::string& name) {
  const Node* parent = mTree.find(directory);
  if (parent == nullptr || !parent->directory) return;
  const auto at = parent->directory->entries.find(name);
  if (at == parent->directory->entries.end() || at->second.node == nullptr) return;
  auto last = std::make_unique<udisk_stat>(visible(at->second));
  last->st_nlink = isDirectory(*last) || last->st_nlink == 0 ? 0 : last->st_nlink - 1;
  at->second.node->removed = std::move(last);
}

/// A file that is open goes on under a name that nobody sees.
Outcome<Unit> Drive::hide(Lock& lock, NodeId directory, const std::string& name,
                          const std::string& hidden) {
  const Outcome<Unit> renamed = renameLocked(lock, directory, name, directory, hidden);
  if (!renamed) return renamed;
  Entry* entry = markHidden(directory, hidden);
  // It may have been closed meanwhile.
  if (entry != nullptr && (entry->node == nullptr || !entry->node->file)) {
    return removeName(lock, directory, hidden, false);
  }
  return Unit{};
}

/// Null when the file is not there any more.
Entry* Drive::markHidden(NodeId directory, const std::string& name) {
  Node* node = mTree.find(directory);
  if (node == nullptr || !node->directory) return nullptr;
  const auto at = node->directory->entries.find(name);
  if (at == node->directory->entries.end()) return nullptr;
  at->second.hidden = true;
  node->directory->snapshot = nullptr;
  std::erase_if(mHiddenPlaces, [&](const auto& place) {
    return findHidden(place.first, place.second) == nullptr;
  });
  mHiddenPlaces.emplace_back(directory, name);
  return &at->second;
}

/// Waits until the host has what was written to files under their present paths.
void Drive::settleBelow(Lock& lock, Node& top) {
  mTree.forEachOpen([&](Node& node) {
    if (isBelow(&node, top) && !node.file->gather.empty()) sendGathered(node);
  });
  mSettled.wait(lock, [&] {
    bool settled = true;
    mTree.forEachOpen([&](Node& node) {
      if (isBelow(&node, top) && node.file->inFlight > 0) settled = false;
    });
    return settled;
  });
}

Outcome<Unit> Drive::rename(NodeId from, std::string_view name, NodeId to, std::string_view newName,
                            unsigned flags) {
  if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) return Errno{EINVAL};
  Lock lock = lockNames();
  if (isPathTooLong(to, newName)) return Errno{ENAMETOOLONG};
  const Outcome<Node*> origin = directoryNode(from);
  if (!origin) return origin.error();
  const Outcome<Node*> destination = directoryNode(to);
  if (!destination) return destination.error();
  const std::string oldKey = spelling(**origin, name);
  std::string newKey = spelling(**destination, newName);
  if (from == to && newKey == oldKey) newKey = newName;  // which changes the spelling
  if ((flags & RENAME_NOREPLACE) != 0) {
    const Presence taken = look(lock, to, newKey);
    if (!taken.isAbsent()) return Errno{taken.isPresent() ? EEXIST : EIO};
  }
  const Outcome<Node*> target = directoryNode(to);
  if (!target) return target.error();
  const auto at = (*target)->directory->entries.find(newKey);
  if (const Outcome<Node*> source = directoryNode(from);
      source && at != (*target)->directory->entries.end()) {
    const auto old = (*source)->directory->entries.find(oldKey);
    const bool known = old != (*source)->directory->entries.end();
    // Two names of one file both stay, as everywhere.
    if (known && old != at && old->second.attributes.st_nlink > 1 &&
        old->second.attributes.st_ino == at->second.attributes.st_ino) {
      return Unit{};
    }
  }
  if (at != (*target)->directory->entries.end() && at->second.node != nullptr &&
      at->second.node->file && at->second.node->file->handles > 0 &&
      !(from == to && oldKey == newKey)) {
    return renameOverOpen(lock, from, oldKey, to, newKey);
  }
  return renameLocked(lock, from, oldKey, to, newKey);
}

Outcome<Unit> Drive::renameLocked(Lock& lock, NodeId from, const std::string& name, NodeId to,
                                  const std::string& newName) {
  const Renaming renaming(*this, lock);
  return renameHeld(lock, from, name, to, newName);
}

/// With a `Renaming`.
Outcome<Unit> Drive::renameHeld(Lock& lock, NodeId from, const std::string& name, NodeId to,
                                const std::string& newName) {
  for (int attempt = 0;; ++attempt) {
    const Outcome<Node*> source = directoryNode(from);
    if (!source) return source.error();
    const Outcome<Node*> target = directoryNode(to);
    if (!target) return target.error();
    Entries& entries = (*source)->directory->entries;
    std::uint64_t inode = 0;
    if (const auto at = entries.find(name); at != entries.end()) {
      inode = at->second.attributes.st_ino;
      if (at->second.node != nullptr) settleBelow(lock, *at->second.node);
    }
    const Outcome<Node*> oldParent = directoryNode(from);
    if (!oldParent) return oldParent.error();
    const Outcome<Node*> newParent = directoryNode(to);
    if (!newParent) return newParent.error();
    const std::string oldPath = joinPath(*mTree.path(**oldParent), name);
    const std::string newPath = joinPath(*mTree.path(**newParent), newName);
    const auto mark = [this, from, &name](bool changing) {
      Node* node = mTree.find(from);
      if (node == nullptr) return;
      const auto at = node->directory->entries.find(name);
      if (at != node->directory->entries.end()) at->second.changing = changing;
    };
    const auto moved = [this, from, to, &name, &newName, &mark] {
      Node* oldNode = mTree.find(from);
      Node* newNode = mTree.find(to);
      mark(false);
      if (oldNode == nullptr || newNode == nullptr) return;
      if (oldNode != newNode || name != newName) keepRemoved(to, newName);
      mTree.move(*oldNode, name, *newNode, newName);
    };
    mark(true);
    Status renamed = Unit{};
    ++mLinkEpoch;
    Burst burst(*this);
    burst.add<Unit>([&](auto done) { mDisk.rename(oldPath, newPath, std::move(done)); },
                    [&moved, &renamed](Status& status) {
                      renamed = status;
                      if (status) moved();
                    });
    burst.queryFile(newPath, to, newName);
    burst.queryDirectory(from);
    if (from != to) burst.queryDirectory(to);
    burst.wait(lock);
    mSmallFiles.forget(oldPath);
    mSmallFiles.forget(newPath);
    if (renamed) return Unit{};
    // The truth is told by looking; in this order, so that the tree follows.
    const bool lost = renamed.error().kind != ErrorKind::kFailed;
    const Presence there = presenceAt(lock, newPath);
    const Presence here = presenceAt(lock, oldPath);
    mark(false);
    if (here.isUnknown() || there.isUnknown()) return Errno{EIO};
    if (here.isAbsent() && lost && there.isPresent() &&
        (inode == 0 || !mOptions.lastingInodes || there.attributes().st_ino == inode)) {
      moved();
      return Unit{};
    }
    if (here.isAbsent()) {
      learn(from, name, Error{ErrorKind::kFailed, {}}, mLinkEpoch);
      return Errno{ENOENT};
    }
    if (lost && attempt < kMaxAttempts) continue;
    if (lost) return Errno{EIO};
    if (isElsewhere(here.attributes(), to)) return Errno{EXDEV};
    if (there.isPresent()) {
      const bool ontoDirectory = isDirectory(there.attributes());
      const bool directory = isDirectory(here.attributes());
      if (ontoDirectory && !directory) return Errno{EISDIR};
      if (!ontoDirectory && directory) return Errno{ENOTDIR};
      if (ontoDirectory) return Errno{ENOTEMPTY};
    }
    return Errno{refusal(lock, EACCES, {.name = newName})};
  }
}

}  // namespace zor::client
