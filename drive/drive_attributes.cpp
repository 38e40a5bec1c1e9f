// Changes of attributes.
#include <sys/stat.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "client/remote_path.h"
#include "client/set_length.h"
#include "drive/drive.h"

namespace zor::client {

namespace {

/// A file that was written this lately has the present as its time.
constexpr std::chrono::seconds kJustNow{2};

}  // namespace

Outcome<Unit> Drive::setLength(NodeId id, std::uint64_t length) {
  if (length > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return Errno{EFBIG};
  }
  Lock lock = lockNames();
  const Outcome<Unit> settled = settle(lock, id, false);
  if (!settled) return settled.error();
  waitForNames(lock);
  Node* node = mTree.find(id);
  if (node != nullptr && !isIdentified(*node)) {
    const std::string present = node->place->first;
    if (look(lock, node->parent->id, present).isUnknown()) return Errno{EIO};
    waitForNames(lock);
    node = mTree.find(id);
  }
  const std::optional<std::string> path = node == nullptr ? std::nullopt : mTree.path(*node);
  if (!path) return Errno{ESTALE};
  if (node->directory) return Errno{EISDIR};
  const NodeId directory = node->parent->id;
  const std::string name = node->place->first;
  const Attempt attempt{{}, 0, length, lengthOf(*node)};
  node->place->second.stale = true;
  ++mLinkEpoch;
  Status status = Unit{};
  if (length <= kTruncateLimit) {
    Burst burst(*this);
    burst.add<Unit>([&](auto done) { mDisk.truncate(*path, length, std::move(done)); },
                    [&status](Status& answer) { status = answer; });
    burst.queryFile(*path, directory, name);
    burst.wait(lock);
  } else {
    // This may give the file another name for a moment.
    mRenaming = true;
    node->place->second.changing = true;
    ++node->references;
    lock.unlock();
    status = zor::client::setLength(mDisk, *path, length);
    lock.lock();
    --node->references;
    ++mLinkEpoch;
    if (node->place != nullptr) node->place->second.changing = false;
    mTree.releaseIfUnused(node);
    endRenaming();
  }
  if (!status && length > kTruncateLimit) report(*path + ": " + status.error().message);
  if (!status && status.error().kind == ErrorKind::kFailed) {
    return Errno{refusal(lock, EPERM, attempt)};
  }
  if (!status) return Errno{EIO};
  // An answer about the size that was asked for before may still be on its way
  // into the tree; this one comes behind it.
  if (length > kTruncateLimit && !look(lock, directory, name).isPresent()) return Errno{EIO};
  return Unit{};
}

/// For changes that a disk without permissions refuses.
template <class Start>
Outcome<Unit> Drive::changeInode(NodeId id, Start start) {
  Lock lock = lockNames();
  const Node* node = mTree.find(id);
  const std::optional<std::string> path = node == nullptr ? std::nullopt : mTree.path(*node);
  if (!path) return Errno{ESTALE};
  Status status = Unit{};
  ++mLinkEpoch;
  Burst burst(*this);
  burst.add<Unit>([&](auto done) { start(*path, std::move(done)); },
                  [&status](Status& answer) { status = answer; });
  if (node->parent != nullptr) {
    burst.queryFile(*path, node->parent->id, node->place->first);
  } else {
    burst.queryDirectory(id);
  }
  burst.wait(lock);
  if (status) return Unit{};
  if (status.error().kind != ErrorKind::kFailed) return Errno{EIO};
  if (mOptions.quiet) return Unit{};
  return Errno{refusal(lock, EPERM)};
}

Outcome<Unit> Drive::setMode(NodeId node, std::uint32_t mode) {
  const std::uint32_t wanted = mode & 07777U;
  std::uint32_t now = wanted;
  {
    const Lock lock(mMutex);
    if (const Node* file = mTree.find(node);
        file != nullptr && file->file && file->file->handles > 0) {
      now |= kOpenMode;
    }
  }
  const Outcome<Unit> done = changeInode(node, [&](const std::string& path, auto answered) {
    mDisk.chmod(path, static_cast<std::uint16_t>(now), std::move(answered));
  });
  if (!done) return done;
  Lock lock(mMutex);
  Node* file = mTree.find(node);
  if (file != nullptr && file->file && file->file->handles > 0) {
    file->file->lateMode = now == wanted ? std::nullopt : std::optional(wanted);
    return done;
  }
  lock.unlock();
  return now == wanted ? done : setMode(node, mode);  // it was closed meanwhile
}

/// When nobody has the file open any more, or will not for long.
void Drive::setLateMode(Lock& lock, NodeId id) {
  waitForNames(lock);
  Node* node = mTree.find(id);
  if (node == nullptr || !node->file || !node->file->lateMode) return;
  if (!mTree.has(*node)) return;  // under a hidden name, too: the file may have another one
  const std::uint32_t mode = *std::exchange(node->file->lateMode, std::nullopt);
  giveMode(lock, node->parent->id, node->place->first, mode);
}

/// Disks without permissions refuse it.
void Drive::giveMode(Lock& lock, NodeId directory, const std::string& name, std::uint32_t mode) {
  const std::string path = joinPath(*mTree.path(*mTree.find(directory)), name);
  ++mLinkEpoch;
  Burst burst(*this);
  burst.add<Unit>(
      [&](auto done) {
        mDisk.chmod(path, static_cast<std::uint16_t>(mode & 07777U), std::move(done));
      },
      [](auto&) {});
  burst.queryFile(path, directory, name);
  burst.wait(lock);
}

Outcome<Unit> Drive::setOwner(NodeId node, std::uint32_t uid, std::uint32_t gid) {
  return changeInode(node, [&](const std::string& path, auto done) {
    mDisk.chown(path, uid, gid, std::move(done));
  });
}

Outcome<Unit> Drive::setTimes(NodeId id, bool now) {
  if (mOptions.quiet) return Unit{};
  Lock lock(mMutex);
  const Node* node = mTree.find(id);
  if (now && node != nullptr && node->file) {
    const FileState& file = *node->file;
    if (file.ahead || Clock::now() - file.created < kJustNow) return Unit{};
  }
  return Errno{EPERM};
}

}  // namespace zor::client
