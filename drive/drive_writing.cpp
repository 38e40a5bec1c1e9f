// Writing, and waiting until what was written is on the disk.
#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "drive/drive.h"
#include "drive/open_file.h"

namespace zor::client {

namespace {

/// What a program wrote goes out after this time at the latest.
constexpr std::chrono::milliseconds kGatherTime{500};

/// Of data that was written and is not acknowledged, over all files.
constexpr std::size_t kMaxInFlight = std::size_t{16} << 20;

/// For the end of a file that others write to all the time.
constexpr int kMaxLooks = 100;

}  // namespace

Outcome<Unit> Drive::write(OpenFile& file, std::int64_t offset, wire::Bytes data, bool appends) {
  if (data.empty()) return Unit{};
  Lock lock(mMutex);
  if (Outcome<Unit> failure = tellFailure(lock, file); !failure) return failure;
  const std::size_t limit = mWriteWindow.chunkSize();
  const auto isLinked = [&] {
    const Node& node = *mTree.find(file.mNode);
    return node.place != nullptr && node.place->second.attributes.st_nlink > 1;
  };
  // Two that append under different names must not take the same end for theirs.
  struct Turn {
    Drive& drive;
    bool taken = false;
    ~Turn() {
      if (!taken) return;
      drive.mAppendingToLinked = false;
      drive.mSettled.notify_all();
    }
  } turn{*this};
  if (appends && isLinked()) {
    mSettled.wait(lock, [this] { return !mAppendingToLinked; });
    mAppendingToLinked = turn.taken = true;
  }
  if (!appends) {
    lookBeforeWriting(lock, file.mNode);
  } else if (!lookBeforeAppending(lock, file)) {
    return Errno{EIO};
  }
  Node* node = mTree.find(file.mNode);
  if (!mTree.has(*node)) return Errno{ESTALE};
  if (appends) offset = visible(node->place->second).st_size;
  if (offset < 0 || static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) -
                            static_cast<std::uint64_t>(offset) <
                        data.size()) {
    return Errno{EFBIG};
  }
  while (!node->file->gather.accepts(offset, data.size(), limit)) {
    waitToWrite(lock, file.mNode);
  }
  FileState& state = *node->file;
  const bool first = state.gather.empty();
  std::memcpy(state.gather.add(offset, data.size()), data.data(), data.size());
  if (first) {
    state.gathered = Clock::now();
    identify(*node);  // the answer is there before the data goes, unless that is soon
  }
  state.end =
      std::max(state.ahead ? state.end : 0, offset + static_cast<std::int64_t>(data.size()));
  state.ahead = true;
  state.unsynced = true;
  ++state.writes;
  state.lastWrite = wallClock();
  if (node->place != nullptr) {
    node->place->second.stale = true;
    node->parent->directory->snapshot = nullptr;
    if (node->place->second.attributes.st_nlink > 1) ++mLinkEpoch;
  }
  mCounters.bytesWritten += data.size();
  file.mAhead.drop();
  // Whoever uses another name of the file is to see it, so it goes at once.
  if (state.gather.size() >= limit || isLinked()) {
    waitToWrite(lock, file.mNode);
  } else if (first) {
    mGathered.notify_one();
  }
  // Another writer may have sent this data meanwhile, and it may have failed.
  return tellFailure(lock, file);
}

/// From a write on, the size is told from what was known before; another name of
/// the file may have been used to change it.
void Drive::lookBeforeWriting(Lock& lock, NodeId id) {
  const auto isUnsure = [&] {
    const Node& node = *mTree.find(id);
    return !node.file->ahead && node.place != nullptr && isDoubtful(node.place->second);
  };
  if (!isUnsure()) return;
  waitForNames(lock);
  if (!isUnsure()) return;
  const Node& node = *mTree.find(id);
  const std::string name = node.place->first;
  static_cast<void>(look(lock, node.parent->id, name));
}

/// Learns where the file ends. False when the host does not tell.
bool Drive::lookBeforeAppending(Lock& lock, OpenFile& file) {
  const NodeId id = file.mNode;
  // Programs that append in turns open the file each time.
  const bool ask = !std::exchange(file.mKnowsEnd, true);
  for (int looks = 0; looks < kMaxLooks; ++looks) {
    const auto isKnown = [&] {
      const Node& node = *mTree.find(id);
      if (node.place == nullptr) return true;  // what is written is refused
      if (ask && looks == 0) return false;
      const Entry& entry = node.place->second;
      if (entry.attributes.st_nlink > 1) return node.file->gather.empty() && !isDoubtful(entry);
      return node.file->ahead || looks > 0 || validity(*node.parent, entry).count() > 0;
    };
    if (isKnown()) return true;
    waitToWrite(lock, id);
    waitForNames(lock);
    if (isKnown()) return true;
    const Node& node = *mTree.find(id);
    const std::string name = node.place->first;
    if (!look(lock, node.parent->id, name).isPresent()) break;
  }
  file.mKnowsEnd = false;
  return false;
}

bool Drive::mayWrite(const FileState& file) const {
  return mBytesInFlight == 0 || mBytesInFlight + file.gather.size() <= kMaxInFlight;
}

/// Sends what is gathered as soon as there is room for it on the way.
void Drive::waitToWrite(Lock& lock, NodeId id) {
  Node* node = mTree.find(id);
  FileState& file = *node->file;  // there is a handle, so it stays
  std::optional<ReadWindow::Ticket> ticket;
  mSettled.wait(lock, [&] {
    if (file.gather.empty()) return true;
    if (mRenaming || !mayWrite(file)) return false;
    ticket = mWriteWindow.tryBegin(static_cast<std::uint32_t>(file.gather.size()));
    return ticket.has_value();
  });
  if (file.gather.empty()) {
    if (ticket) mWriteWindow.finished(*ticket, 0);
  } else {
    sendGathered(*node, *ticket);
  }
}

void Drive::sendGathered(Node& node) {
  sendGathered(node, mWriteWindow.begin(static_cast<std::uint32_t>(node.file->gather.size())));
}

void Drive::sendGathered(Node& node, const ReadWindow::Ticket& ticket) {
  FileState& file = *node.file;
  const std::size_t size = file.gather.size();
  // Of a file that is gone: the request is refused on this side.
  const std::string path = mTree.path(node).value_or("a file that is gone");
  identify(node);
  if (node.place == nullptr || node.place->second.attributes.st_nlink > 1) ++mLinkEpoch;
  ++file.inFlight;
  mBytesInFlight += size;
  const std::uint64_t end = file.gather.end();
  auto done = [this, path, id = node.id, size, end, ticket](Status& status) {
    mWriteWindow.finished(ticket, status ? size : 0);
    mBytesInFlight -= size;
    Node& written = *mTree.find(id);
    if (!status) {
      written.file->failedBytes = std::max<std::uint64_t>(written.file->failedBytes, size);
      written.file->failedEnd = std::max(written.file->failedEnd, end);
      writeFailed(written, path);
    }
    answered(written);
  };
  file.gather.submit(mDisk, path, whenAnswered<Unit>(std::move(done)));
}

/// One of the requests that a close waits for is done.
void Drive::answered(Node& node) {
  --node.file->inFlight;
  mSettled.notify_all();
  dropIdle(node);
}

/// Frees the state of a file that nobody has open any more.
void Drive::dropIdle(Node& node) {
  const FileState& file = *node.file;
  if (file.handles > 0 || file.inFlight > 0 || !file.gather.empty()) return;
  node.file = nullptr;
  mTree.releaseIfUnused(&node);
}

/// Waits until the host has all that was written to the file, and, with `sync`,
/// until it is on the disk. What failed is told by the file's failures.
Outcome<Unit> Drive::settle(Lock& lock, NodeId id, bool sync) {
  Node* node = mTree.find(id);
  if (node == nullptr) return Errno{ESTALE};
  if (!node->file || (!node->file->ahead && !node->file->unsynced && node->file->inFlight == 0 &&
                      node->file->gather.empty())) {
    return Unit{};
  }
  ++node->file->handles;  // it stays while we wait
  waitForNames(lock);
  if (!node->file->gather.empty()) sendGathered(*node);
  const std::uint64_t writes = node->file->writes;
  const std::uint64_t failures = node->file->failures;
  const std::optional<std::string> path = mTree.path(*node);
  Burst burst(*this);
  if (sync && path && node->file->unsynced) {
    node->file->unsynced = false;
    ++node->file->inFlight;
    burst.add<Unit>([&](auto done) { mDisk.fsync(*path, std::move(done)); },
                    [this, path = *path, id](Status& status) {
                      Node& synced = *mTree.find(id);
                      if (!status) writeFailed(synced, path);
                      answered(synced);
                    });
  }
  if (path && node->parent != nullptr && node->file->ahead) {
    burst.queryFile(*path, node->parent->id, node->place->first);
  }
  burst.wait(lock);
  mSettled.wait(lock, [&] { return node->file->inFlight == 0; });
  // Without an answer the attributes are in doubt, and the next one asks; unless
  // another write has come, whose writer will.
  if (node->file->ahead && node->file->writes == writes) {
    node->file->ahead = false;
    if (node->place != nullptr) node->place->second.stale = true;
  }
  if (node->place == nullptr && node->file->failures == failures) noteWrongFile(*node);
  --node->file->handles;
  dropIdle(*node);
  return Unit{};
}

Outcome<Unit> Drive::flush(OpenFile& file) {
  Lock lock(mMutex);
  if (Outcome<Unit> done = settleFile(lock, file, mOptions.syncOnClose); !done) return done;
  return untoldFailure(lock, file);
}

Outcome<Unit> Drive::sync(OpenFile& file) {
  Lock lock(mMutex);
  if (Outcome<Unit> done = settleFile(lock, file, true); !done) return done;
  return tellFailure(lock, file);
}

Outcome<Unit> Drive::settleFile(Lock& lock, const OpenFile& file, bool sync) {
  if (file.mWritable) {
    const Outcome<Unit> settled = settle(lock, file.mNode, sync);
    if (!settled) return settled;
    // A disk with coarse times may not tell it from what was fetched before.
    if (const Node* node = mTree.find(file.mNode); node != nullptr) {
      if (const std::optional<std::string> path = mTree.path(*node)) mSmallFiles.forget(*path);
    }
  }
  return Unit{};
}

void Drive::release(OpenFile& file) {
  Lock lock(mMutex);
  Node* node = mTree.find(file.mNode);
  if (node->file->handles == 1) {
    // What was written through a mapping after the last close.
    static_cast<void>(settle(lock, file.mNode, mOptions.syncOnClose));
    setLateMode(lock, file.mNode);
  }
  const bool last = --node->file->handles == 0;
  const bool hidden = last && node->place != nullptr && node->place->second.hidden &&
                      !isUnfinished(node->parent->id, node->place->first);
  const NodeId directory = hidden ? node->parent->id : 0;
  const std::string name = hidden ? node->place->first : std::string();
  dropIdle(*node);
  mOpenFiles.erase(&file);
  if (!hidden) return;
  waitForNames(lock);
  if (!removeName(lock, directory, name, false)) {
    // Seen again, so that its directory can still be emptied and removed.
    if (Node* parent = mTree.find(directory); parent != nullptr && parent->directory) {
      const auto at = parent->directory->entries.find(name);
      if (at != parent->directory->entries.end()) at->second.hidden = false;
      parent->directory->snapshot = nullptr;
    }
    report("a removed file could not be cleaned up; it is called '" + name + "' on the disk");
  }
}

void Drive::flushLoop() {
  Lock lock(mMutex);
  Clock::time_point dropNext = Clock::now() + kListAgainAfter;
  while (!mStop) {
    tellOfLosses(lock);
    const Clock::time_point now = Clock::now();
    if (now >= dropNext) {
      lock.unlock();
      dropUnused(now);
      lock.lock();
      dropNext = now + kListAgainAfter;
    }
    Clock::time_point next = dropNext;
    if (!mRenaming) {
      mTree.forEachOpen([&](Node& node) {
        if (node.file->gather.empty()) return;
        const Clock::time_point due = node.file->gathered + kGatherTime;
        if (due <= now) {
          sendGathered(node);
        } else {
          next = std::min(next, due);
        }
      });
    } else {
      next = now + kGatherTime;
    }
    if (!mUnfinished.empty()) {
      if (now >= mUndoAt) {
        undoUnfinished(lock);
        mUndoAt = Clock::now() + kGatherTime;
        continue;
      }
      next = std::min(next, mUndoAt);
    }
    if (!mStop && mLossesTold == mLost.size()) mGathered.wait_until(lock, next);
  }
}

std::vector<std::string> Drive::finish() {
  Lock lock(mMutex);
  undoUnfinished(lock);
  for (const Unfinished& one : mUnfinished) {
    report("'" + one.name + "' could not be replaced; it is called '" + one.hidden +
           "' on the disk");
  }
  std::vector<NodeId> open;
  std::vector<std::pair<NodeId, std::string>> hidden;
  mTree.forEachOpen([&](Node& node) {
    open.push_back(node.id);
    if (node.place != nullptr && node.place->second.hidden &&
        !isUnfinished(node.parent->id, node.place->first)) {
      hidden.emplace_back(node.parent->id, node.place->first);
    }
  });
  for (const NodeId id : open) {
    static_cast<void>(settle(lock, id, true));
    setLateMode(lock, id);
  }
  for (const auto& [directory, name] : hidden) {
    static_cast<void>(removeName(lock, directory, name, false));
  }
  return mLost;
}

}  // namespace zor::client
