// Names that become others.
#include <stdio.h>

#include <utility>

#include "drive/drive.h"

namespace zor::client {

Outcome<Unit> Drive::rename(NodeId from, std::string_view name, NodeId to, std::string_view newName,
                            unsigned flags) {
  if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) return Errno{EINVAL};
  const MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  if (isPathTooLong(to, newName)) return Errno{ENAMETOOLONG};
  const Outcome<Node*> origin = directoryNode(from);
  if (!origin) return origin.error();
  const Outcome<Node*> destination = directoryNode(to);
  if (!destination) return destination.error();
  const std::string oldKey = mNames.spelling(**origin, name);
  std::string newKey = mNames.spelling(**destination, newName);
  if (from == to && newKey == oldKey) newKey = newName;  // which changes the spelling
  if ((flags & RENAME_NOREPLACE) != 0) {
    const Presence taken = revalidate(to, newKey);
    if (!taken.isAbsent()) return Errno{taken.isPresent() ? EEXIST : EIO};
  }
  const Entry* old = mNames.findEntry(from, oldKey);
  const Entry* target = mNames.findEntry(to, newKey);
  if (target != nullptr && old != nullptr && old != target && old->attributes.st_nlink > 1 &&
      old->attributes.st_ino == target->attributes.st_ino) {
    return Unit{};  // two names of one file both stay, as everywhere
  }
  if (target != nullptr && old != target && target->node != nullptr && target->node->open &&
      target->node->open->handles > 0) {
    return renameOverOpen(from, oldKey, to, newKey);
  }
  return renameLocked(from, oldKey, to, newKey);
}

Outcome<Unit> Drive::renameLocked(NodeId from, const std::string& name, NodeId to,
                                  const std::string& newName) {
  const Rename rename(mGate);
  return renameHeld(rename, from, name, to, newName);
}

Outcome<Unit> Drive::renameHeld(const Rename& rename, NodeId from, const std::string& name,
                                NodeId to, const std::string& newName) {
  for (int attempt = 0;; ++attempt) {
    std::uint64_t inode = 0;
    if (const Entry* entry = mNames.findEntry(from, name); entry != nullptr) {
      inode = entry->attributes.st_ino;
      if (entry->node != nullptr) mWriteBack.drainBelow(rename, *entry->node);
    }
    if (const Outcome<Node*> source = directoryNode(from); !source) return source.error();
    if (const Outcome<Node*> target = directoryNode(to); !target) return target.error();
    CompoundRequest request(mHost, &rename);
    const PathLease* oldPath = request.at(from, name);
    const PathLease* newPath = request.at(to, newName);
    const auto mark = [this, from, &name](bool pending) {
      mMutex.assertHeld();
      if (Entry* entry = mNames.findEntry(from, name); entry != nullptr) entry->pending = pending;
    };
    const auto moved = [this, from, to, &name, &newName, &mark] {
      mMutex.assertHeld();
      mark(false);
      if (from != to || name != newName) mNames.keepRemoved(to, newName);
      mNames.move(from, name, to, newName);
    };
    mark(true);
    Status renamed = Unit{};
    mNames.invalidateLinks();
    request.add<Unit>([&](auto done) { mDisk.rename(*oldPath, *newPath, std::move(done)); },
                      [&moved, &renamed](Status& status) {
                        renamed = status;
                        if (status) moved();
                      });
    request.queryFile(to, newName);
    request.queryDirectory(from);
    if (from != to) request.queryDirectory(to);
    request.wait();
    mSmallFiles.forget(from, name);
    mSmallFiles.forget(to, newName);
    if (renamed) return Unit{};
    // Queries show what became of it; in this order, so that the tree follows.
    const bool lost = renamed.error().kind != ErrorKind::kFailed;
    const Presence there = presenceAt(to, newName, &rename);
    const Presence here = presenceAt(from, name, &rename);
    mark(false);
    if (here.isUnknown() || there.isUnknown()) return Errno{EIO};
    if (here.isAbsent() && lost && there.isPresent() &&
        (inode == 0 || !mOptions.lastingInodes || there.attributes().st_ino == inode)) {
      moved();
      return Unit{};
    }
    if (here.isAbsent()) {
      mNames.learn(from, name, Error{ErrorKind::kFailed, {}}, mNames.linkEpoch());
      return Errno{ENOENT};
    }
    if (lost && attempt < kMaxRepeats) continue;
    if (lost) return Errno{EIO};
    return Errno{renameRefusal(rename, here, there, to, newName)};
  }
}

int Drive::renameRefusal(const Rename& rename, const Presence& here, const Presence& there,
                         NodeId to, const std::string& newName) {
  if (isElsewhere(here.attributes(), to)) return EXDEV;
  if (there.isPresent()) {
    const bool ontoDirectory = isDirectory(there.attributes());
    const bool directory = isDirectory(here.attributes());
    if (ontoDirectory && !directory) return EISDIR;
    if (!ontoDirectory && directory) return ENOTDIR;
    if (ontoDirectory) return ENOTEMPTY;
  }
  return refusal(EACCES, {.name = newName}, &rename);
}

}  // namespace zor::client
