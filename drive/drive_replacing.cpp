// Renames over a file that is open here: whoever has it open goes on with it, under a
// hidden name.
#include <algorithm>
#include <utility>

#include "client/remote_path.h"
#include "drive/drive.h"

namespace zor::client {

namespace {

/// For what was lost on the way.
constexpr int kMaxLinkAttempts = 10;

}  // namespace

// The target gets the hidden name as a second one first, so that there is always a file
// under its own name: the old one or the new one, whatever becomes of link and host.

Outcome<Unit> Drive::renameOverOpen(Lock& lock, NodeId from, const std::string& name, NodeId to,
                                    const std::string& newName) {
  const std::string hidden = hiddenName();
  bool joined = false;
  Outcome<Unit> renamed = Unit{};
  {
    const Renaming renaming(*this, lock);
    const Outcome<bool> linked = linkHidden(lock, to, newName, hidden);
    if (!linked) return linked.error();
    if (!*linked) return renameInTwo(lock, from, name, to, newName, hidden);
    renamed = renameHeld(lock, from, name, to, newName);
    // After EIO nobody knows: the hidden name is right in both cases.
    if (!renamed && renamed.error().value != EIO) joined = joinHidden(to, hidden, newName);
  }
  // It may have been closed meanwhile.
  const Entry* left = findHidden(to, hidden);
  const bool unused = left != nullptr && (left->node == nullptr || !left->node->file);
  if (!joined && !unused) return renamed;
  const Outcome<Unit> removed = removeName(lock, to, hidden, false);
  if (!removed && removed.error().value != ENOENT) {
    report("a second name of '" + newName + "' could not be removed: '" + hidden + "' on the disk");
  }
  return renamed;
}

/// False: the disk refuses links.
Outcome<bool> Drive::linkHidden(Lock& lock, NodeId directory, const std::string& name,
                                const std::string& hidden) {
  for (int attempt = 1;; ++attempt) {
    const auto target = [&]() -> Node* {
      const Outcome<Node*> parent = directoryNode(directory);
      if (!parent) return nullptr;
      const auto at = (*parent)->directory->entries.find(name);
      return at == (*parent)->directory->entries.end() ? nullptr : at->second.node;
    };
    // What is repeated after a lost link must not meet the new file.
    if (Node* node = target(); node != nullptr) settleBelow(lock, *node);
    const Node* node = target();
    if (node == nullptr) return true;  // gone: there is nothing to go on with
    const std::string path = *mTree.path(*node);
    const std::string hiddenPath = joinPath(*mTree.path(*node->parent), hidden);
    ++mLinkEpoch;
    const Status linked = ask<Unit>(
        lock, [&](auto done) { mDisk.link(path, hiddenPath, std::move(done)); },
        [&](Status& status) {
          if (status) splitHidden(directory, name, hidden);
        });
    if (linked) return true;
    if (linked.error().kind == ErrorKind::kFailed) return false;
    const Presence seen = presenceAt(lock, hiddenPath);
    if (seen.isUnknown() || attempt == kMaxLinkAttempts) return Errno{EIO};
    if (seen.isPresent()) {
      splitHidden(directory, name, hidden);
      return true;
    }
  }
}

/// A file has a hidden name now, too: those who have it open go on under that.
void Drive::splitHidden(NodeId directory, const std::string& name, const std::string& hidden) {
  Node* parent = mTree.find(directory);
  if (parent == nullptr) return;
  mTree.move(*parent, name, *parent, hidden);
  Entry* entry = markHidden(directory, hidden);
  if (entry == nullptr) return;
  entry->stale = true;
  Entry twin = *entry;
  twin.node = nullptr;
  twin.hidden = false;
  parent->directory->entries.emplace(name, std::move(twin));
}

/// The opposite.
bool Drive::joinHidden(NodeId directory, const std::string& hidden, const std::string& name) {
  Node* parent = mTree.find(directory);
  if (parent == nullptr || findHidden(directory, hidden) == nullptr) return false;
  Entry& entry = parent->directory->entries.find(hidden)->second;
  entry.hidden = false;
  entry.stale = true;
  mTree.move(*parent, hidden, *parent, name);
  return true;
}

/// For disks without links. Between the two there is no file under the name.
Outcome<Unit> Drive::renameInTwo(Lock& lock, NodeId from, const std::string& name, NodeId to,
                                 const std::string& newName, const std::string& hidden) {
  const Outcome<Unit> away = renameHeld(lock, to, newName, to, hidden);
  if (!away && away.error().value != ENOENT) {
    // It may have got the hidden name all the same.
    if (away.error().value == EIO) undoLater({to, hidden, newName});
    return away;
  }
  if (away) markHidden(to, hidden);
  const Outcome<Unit> renamed = renameHeld(lock, from, name, to, newName);
  if (renamed || !away) return renamed;
  if (renamed.error().value == EIO || !unhide(lock, {to, hidden, newName})) {
    undoLater({to, hidden, newName});
  }
  return renamed;
}

/// With a `Renaming`.
Outcome<Unit> Drive::unhide(Lock& lock, const Unfinished& one) {
  const Outcome<Unit> back = renameHeld(lock, one.directory, one.hidden, one.directory, one.name);
  Node* parent = mTree.find(one.directory);
  if (!back || parent == nullptr || !parent->directory) return back;
  const auto at = parent->directory->entries.find(one.name);
  if (at != parent->directory->entries.end()) at->second.hidden = false;
  parent->directory->snapshot = nullptr;
  return back;
}

void Drive::undoLater(Unfinished one) {
  mUnfinished.push_back(std::move(one));
  mGathered.notify_one();
}

bool Drive::isUnfinished(NodeId directory, const std::string& hidden) const {
  return std::any_of(mUnfinished.begin(), mUnfinished.end(), [&](const Unfinished& one) {
    return one.directory == directory && one.hidden == hidden;
  });
}

/// Whether nothing is left to be done about it.
bool Drive::undo(Lock& lock, const Unfinished& one) {
  const Renaming renaming(*this, lock);
  const Outcome<Node*> parent = directoryNode(one.directory);
  if (!parent) return true;
  const Result<Listing> listing = ask<Listing>(
      lock, [&](auto done) { mDisk.list(*mTree.path(**parent), std::move(done)); }, [](auto&) {});
  if (!listing) return false;
  const auto has = [&listing](const std::string& name) {
    return std::any_of(listing->entries().begin(), listing->entries().end(),
                       [&](const wire::DirEntry& entry) { return entry.name == name; });
  };
  if (has(one.name) || !has(one.hidden)) return true;
  const Outcome<Unit> back = unhide(lock, one);
  return back || back.error().value != EIO;
}

/// What was to be replaced, and was not, gets its name back as soon as the host answers.
void Drive::undoUnfinished(Lock& lock) {
  for (const Unfinished& one : std::vector<Unfinished>(mUnfinished)) {
    if (!undo(lock, one)) continue;
    std::erase_if(mUnfinished, [&](const Unfinished& other) { return other.hidden == one.hidden; });
    // It was replaced in the end, and nobody may have it open any more.
    const Entry* left = findHidden(one.directory, one.hidden);
    if (left != nullptr && (left->node == nullptr || !left->node->file)) {
      static_cast<void>(removeName(lock, one.directory, one.hidden, false));
    }
  }
}

}  // namespace zor::client
