// Changes of attributes.
#include <sys/stat.h>

#include <limits>
#include <utility>

#include "drive/data/identity.h"
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
  const MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  const Outcome<Unit> flushed = mWriteBack.flush(id, false);
  if (!flushed) return flushed.error();
  mGate.waitUntilOpen();
  Node* node = mNames.find(id);
  if (node != nullptr && !isIdentified(mNames, *node)) {
    const NodeId directory = node->parent->id;
    if (revalidate(directory, std::string(node->name())).isUnknown()) return Errno{EIO};
    mGate.waitUntilOpen();
    node = mNames.find(id);
  }
  if (node == nullptr || !mNames.has(*node)) return Errno{ESTALE};
  if (node->directory) return Errno{EISDIR};
  const Attempt attempt{{}, 0, length, lengthOf(*node)};
  node->entry().stale = true;
  mNames.invalidateLinks();
  Status status = Unit{};
  if (length <= kTruncateLimit) {
    CompoundRequest request(mHost);
    const PathLease* at = request.at(id);
    request.add<Unit>([&](auto done) { mDisk.truncate(*at, length, std::move(done)); },
                      [&status](Status& reply) { status = reply; });
    request.queryFile(node->parent->id, node->name());
    request.wait();
    if (status) return Unit{};
  } else {
    status = setLongLength(id, length);
    if (status) {
      // A reply about the size that was queried before may still be on its way into the
      // tree; this one comes behind it.
      mGate.waitUntilOpen();
      node = mNames.find(id);
      if (node == nullptr || node->place == nullptr) return Errno{EIO};
      const NodeId directory = node->parent->id;
      return revalidate(directory, std::string(node->name())).isPresent() ? Outcome<Unit>(Unit{})
                                                                          : Errno{EIO};
    }
  }
  if (status.error().kind != ErrorKind::kFailed) return Errno{EIO};
  return Errno{refusal(EPERM, attempt)};
}

/// This may give the file another name for a moment.
Status Drive::setLongLength(NodeId id, std::uint64_t length) {
  const Rename rename(mGate);
  const std::optional<PathLease> at = rename.lease(id);
  if (!at) return Error{ErrorKind::kFailed, "the file is gone"};
  Node* node = mNames.find(id);
  node->entry().pending = true;
  ++node->references;
  mMutex.unlock();
  Status status = mDisk.setLength(*at, length);
  mMutex.lock();
  --node->references;
  mNames.invalidateLinks();
  if (node->place != nullptr) node->entry().pending = false;
  mNames.releaseIfUnused(node);
  if (!status) report(at->path() + ": " + status.error().message);
  return status;
}

/// For changes that a disk without permissions refuses.
Outcome<Unit> Drive::changeInode(NodeId id, const Change& change) {
  CompoundRequest request(mHost);
  const PathLease* at = request.at(id);
  if (at == nullptr) return Errno{ESTALE};
  const Node& node = *mNames.find(id);
  Status status = Unit{};
  mNames.invalidateLinks();
  request.add<Unit>([&](auto done) { change(*at, std::move(done)); },
                    [&status](Status& reply) { status = reply; });
  if (node.parent != nullptr) {
    request.queryFile(node.parent->id, node.name());
  } else {
    request.queryDirectory(id);
  }
  request.wait();
  if (status) return Unit{};
  if (status.error().kind != ErrorKind::kFailed) return Errno{EIO};
  if (mOptions.quiet) return Unit{};
  return Errno{refusal(EPERM)};
}

Outcome<Unit> Drive::setMode(NodeId id, std::uint32_t mode) {
  const MutexLock lock(mMutex);
  const std::uint32_t wanted = mode & 07777U;
  const auto openState = [this, id]() -> OpenState* {
    mMutex.assertHeld();
    Node* node = mNames.find(id);
    return node != nullptr && node->open && node->open->handles > 0 ? node->open.get() : nullptr;
  };
  for (;;) {
    const std::uint32_t now = openState() != nullptr ? wanted | kOpenMode : wanted;
    Outcome<Unit> done = changeInode(id, [this, now](const PathLease& at, auto answered) {
      mDisk.chmod(at, static_cast<std::uint16_t>(now), std::move(answered));
    });
    if (!done) return done;
    OpenState* open = openState();
    if (open != nullptr) open->deferredMode = now == wanted ? std::nullopt : std::optional(wanted);
    if (open != nullptr || now == wanted) return done;
    // It was closed meanwhile.
  }
}

/// When nobody has the file open any more, or will not for long.
void Drive::setDeferredMode(NodeId id) {
  mGate.waitUntilOpen();
  Node* node = mNames.find(id);
  if (node == nullptr || !node->open || !node->open->deferredMode) return;
  if (!mNames.has(*node)) return;  // under a silly name, too: the file may have another one
  const std::uint32_t mode = *std::exchange(node->open->deferredMode, std::nullopt);
  const NodeId directory = node->parent->id;
  setModeLater(directory, std::string(node->name()), mode);
}

/// Of what was created with other permissions. Disks without permissions refuse it.
void Drive::setModeLater(NodeId directory, const std::string& name, std::uint32_t mode) {
  CompoundRequest request(mHost);
  const PathLease* at = request.at(directory, name);
  if (at == nullptr) return;
  mNames.invalidateLinks();
  request.add<Unit>(
      [&](auto done) {
        mDisk.chmod(*at, static_cast<std::uint16_t>(mode & 07777U), std::move(done));
      },
      [](auto&) {});
  request.queryFile(directory, name);
  request.wait();
}

Outcome<Unit> Drive::setOwner(NodeId node, std::uint32_t uid, std::uint32_t gid) {
  const MutexLock lock(mMutex);
  return changeInode(node, [this, uid, gid](const PathLease& at, auto done) {
    mDisk.chown(at, uid, gid, std::move(done));
  });
}

Outcome<Unit> Drive::setTimes(NodeId id, bool now) {
  if (mOptions.quiet) return Unit{};
  const MutexLock lock(mMutex);
  const Node* node = mNames.find(id);
  if (now && node != nullptr && node->open &&
      (node->open->dirty || mNames.now() - node->open->created < kJustNow)) {
    return Unit{};
  }
  return Errno{EPERM};
}

}  // namespace zor::client
