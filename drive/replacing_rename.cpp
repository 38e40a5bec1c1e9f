// Renames over a file that is open here: the programs that have it open go on with it,
// under a silly name.
#include <algorithm>
#include <utility>

#include "drive/drive.h"

namespace zor::client {

// The target gets the silly name as a second one first, so that there is always a file
// under its own name: the old one or the new one, whatever becomes of link and host.

Outcome<Unit> Drive::renameOverOpen(NodeId from, const std::string& name, NodeId to,
                                    const std::string& newName) {
  const std::string silly = sillyName();
  bool joined = false;
  Outcome<Unit> renamed = Unit{};
  {
    const Rename rename(mGate);
    const Outcome<bool> linked = linkSilly(rename, to, newName, silly);
    if (!linked) return linked.error();
    if (!*linked) return renameInTwo(rename, from, name, to, newName, silly);
    renamed = renameHeld(rename, from, name, to, newName);
    // After EIO nobody knows: the silly name is right in both cases.
    if (!renamed && renamed.error().value != EIO) joined = joinSilly(to, silly, newName);
  }
  // It may have been closed meanwhile.
  if (!joined && !isUnusedSilly(to, silly)) return renamed;
  const Outcome<Unit> removed = removeName(to, silly, false);
  if (!removed && removed.error().value != ENOENT) {
    report("a second name of '" + newName + "' could not be removed: '" + silly + "' on the disk");
  }
  return renamed;
}

/// False: the disk refuses links.
Outcome<bool> Drive::linkSilly(const Rename& rename, NodeId directory, const std::string& name,
                               const std::string& silly) {
  for (int attempt = 1;; ++attempt) {
    const auto target = [&]() -> Node* {
      mMutex.assertHeld();
      const Outcome<Node*> parent = directoryNode(directory);
      const Entry* entry = parent ? mNames.findEntry(directory, name) : nullptr;
      return entry == nullptr ? nullptr : entry->node;
    };
    // What is repeated after a lost link must not meet the new file.
    if (Node* node = target(); node != nullptr) mWriteBack.drainBelow(rename, *node);
    if (target() == nullptr) return true;  // gone: there is nothing to go on with
    CompoundRequest request(mHost, &rename);
    const PathLease* path = request.at(directory, name);
    const PathLease* sillyPath = request.at(directory, silly);
    mNames.invalidateLinks();
    const Status linked =
        request.get<Unit>([&](auto done) { mDisk.link(*path, *sillyPath, std::move(done)); },
                          [&](Status& status) {
                            mMutex.assertHeld();
                            if (status) splitSilly(directory, name, silly);
                          });
    if (linked) return true;
    if (linked.error().kind == ErrorKind::kFailed) return false;
    const Presence seen = presenceAt(directory, silly, &rename);
    if (seen.isUnknown() || attempt == kMaxRepeats) return Errno{EIO};
    if (seen.isPresent()) {
      splitSilly(directory, name, silly);
      return true;
    }
  }
}

/// A file has a silly name now, too: the programs that have it open go on under that.
void Drive::splitSilly(NodeId directory, const std::string& name, const std::string& silly) {
  mNames.move(directory, name, directory, silly);
  Entry* entry = mNames.markSilly(directory, silly);
  if (entry == nullptr) return;
  entry->stale = true;
  Entry twin = *entry;
  twin.node = nullptr;
  twin.silly = false;
  mNames.find(directory)->directory->entries.emplace(name, std::move(twin));
}

/// The opposite.
bool Drive::joinSilly(NodeId directory, const std::string& silly, const std::string& name) {
  Entry* entry = mNames.findSilly(directory, silly);
  if (entry == nullptr) return false;
  entry->silly = false;
  entry->stale = true;
  mNames.move(directory, silly, directory, name);
  return true;
}

/// For disks without links. Between the two there is no file under the name.
Outcome<Unit> Drive::renameInTwo(const Rename& rename, NodeId from, const std::string& name,
                                 NodeId to, const std::string& newName, const std::string& silly) {
  const Outcome<Unit> away = renameHeld(rename, to, newName, to, silly);
  if (!away && away.error().value != ENOENT) {
    // It may have got the silly name all the same.
    if (away.error().value == EIO) undoLater({to, silly, newName});
    return away;
  }
  if (away) mNames.markSilly(to, silly);
  const Outcome<Unit> renamed = renameHeld(rename, from, name, to, newName);
  if (renamed || !away) return renamed;
  if (renamed.error().value == EIO || !restoreName(rename, {to, silly, newName})) {
    undoLater({to, silly, newName});
  }
  return renamed;
}

void Drive::undoLater(Unfinished one) {
  mUnfinished.push_back(std::move(one));
  mWork.notifyOne();
}

bool Drive::isUnfinished(NodeId directory, const std::string& silly) const {
  return std::any_of(mUnfinished.begin(), mUnfinished.end(), [&](const Unfinished& one) {
    return one.directory == directory && one.silly == silly;
  });
}

/// With the mutex held.
void Drive::hostReplied() {
  mMutex.assertHeld();
  if (mUnfinished.empty()) return;
  mUndoAt = {};
  mWork.notifyOne();
}

/// Whether nothing is left to be done about it.
bool Drive::undo(const Unfinished& one) {
  const Rename rename(mGate);
  if (const Outcome<Node*> parent = directoryNode(one.directory); !parent) return true;
  CompoundRequest request(mHost, &rename);
  const PathLease* at = request.at(one.directory);
  const Result<Listing> listing =
      request.get<Listing>([&](auto done) { mDisk.list(*at, std::move(done)); });
  if (!listing) return false;
  const auto has = [&listing](const std::string& name) {
    return std::any_of(listing->entries().begin(), listing->entries().end(),
                       [&](const wire::DirEntry& entry) { return entry.name == name; });
  };
  if (has(one.name) || !has(one.silly)) return true;
  const Outcome<Unit> back = restoreName(rename, one);
  return back || back.error().value != EIO;
}

/// What was to be replaced, and was not, gets its name back as soon as the host answers.
void Drive::undoUnfinished() {
  for (const Unfinished& one : std::vector<Unfinished>(mUnfinished)) {
    if (!undo(one)) continue;
    std::erase_if(mUnfinished, [&](const Unfinished& other) { return other.silly == one.silly; });
    // It was replaced in the end, and nobody may have it open any more.
    if (isUnusedSilly(one.directory, one.silly)) {
      static_cast<void>(removeName(one.directory, one.silly, false));
    }
  }
}

}  // namespace zor::client
