// Writing, and waiting until what was written is on the disk.
#include <limits>
#include <optional>
#include <utility>

#include "drive/drive.h"

namespace zor::client {

namespace {

/// For the end of a file that others write to all the time.
constexpr int kMaxRevalidations = 100;

/// The kernel splits larger ones.
constexpr std::size_t kMinSplitWrite = std::size_t{64} << 10;

bool isLinked(const Node& node) {
  return node.place != nullptr && node.entry().attributes.st_nlink > 1;
}

}  // namespace

Outcome<Unit> Drive::write(OpenFile& file, std::int64_t offset, wire::Bytes data, bool appends) {
  if (data.empty()) return Unit{};
  const MutexLock lock(mMutex);
  // Of a write(2) that was split, programs see how much was written, and no error of the rest.
  const bool isSeen = std::exchange(file.mSplitAt, -1) != offset;
  const auto failure = [&, this] {
    mMutex.assertHeld();
    return isSeen ? takeFailure(file) : unreportedFailure(file);
  };
  if (Outcome<Unit> earlier = failure(); !earlier) return earlier;
  if (data.size() >= kMinSplitWrite) {
    file.mSplitAt = offset + static_cast<std::int64_t>(data.size());
  }
  Node* node = mNames.find(file.mNode);
  std::optional<WriteBack::AppendTurn> turn;
  if (appends && isLinked(*node)) turn.emplace(mWriteBack);
  if (!appends) {
    revalidateBeforeWriting(file.mNode);
  } else if (!findEnd(file)) {
    return Errno{EIO};
  }
  if (!mNames.has(*node)) return Errno{ESTALE};
  if (appends) offset = mNames.shown(node->entry()).st_size;
  if (offset < 0 || static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) -
                            static_cast<std::uint64_t>(offset) <
                        data.size()) {
    return Errno{EFBIG};
  }
  mWriteBack.waitForRoom(file.mNode, offset, data.size());
  mCounters.bytesWritten += data.size();
  file.mReader.invalidate();
  if (mWriteBack.add(*node, offset, data)) mWriteBack.waitToSend(file.mNode);
  // Another writer may have sent this data meanwhile, and it may have failed.
  return failure();
}

/// From a write on, the size is derived from what was known before; another name of the
/// file may have been used to change it.
void Drive::revalidateBeforeWriting(NodeId id) {
  const auto isUnsure = [&] {
    mMutex.assertHeld();
    const Node& node = *mNames.find(id);
    return !node.open->dirty && node.place != nullptr && mNames.isStale(node.entry());
  };
  if (!isUnsure()) return;
  mGate.waitUntilOpen();
  if (!isUnsure()) return;
  const Node& node = *mNames.find(id);
  const NodeId directory = node.parent->id;
  static_cast<void>(revalidate(directory, std::string(node.name())));
}

/// Learns where the file ends. False when the host does not reply.
bool Drive::findEnd(OpenFile& file) {
  const NodeId id = file.mNode;
  // Programs that append in turns open the file each time.
  const bool ask = !std::exchange(file.mKnowsEnd, true);
  for (int asked = 0; asked < kMaxRevalidations; ++asked) {
    const auto isKnown = [&] {
      mMutex.assertHeld();
      const Node& node = *mNames.find(id);
      if (node.place == nullptr) return true;  // what is written is refused
      if (ask && asked == 0) return false;
      const Entry& entry = node.entry();
      if (isLinked(node)) return stateOf(node)->buffer.empty() && !mNames.isStale(entry);
      return node.open->dirty || asked > 0 || mNames.isValid(*node.parent, entry);
    };
    if (isKnown()) return true;
    mWriteBack.waitToSend(id);
    if (isKnown()) return true;
    const Node& node = *mNames.find(id);
    const NodeId directory = node.parent->id;
    if (!revalidate(directory, std::string(node.name())).isPresent()) break;
  }
  file.mKnowsEnd = false;
  return false;
}

Outcome<Unit> Drive::flush(OpenFile& file) {
  const MutexLock lock(mMutex);
  if (Outcome<Unit> done = flushFile(file, mOptions.syncOnClose); !done) return done;
  return unreportedFailure(file);
}

Outcome<Unit> Drive::sync(OpenFile& file) {
  const MutexLock lock(mMutex);
  if (Outcome<Unit> done = flushFile(file, true); !done) return done;
  return takeFailure(file);
}

Outcome<Unit> Drive::flushFile(const OpenFile& file, bool sync) {
  if (!file.mWritable) return Unit{};
  const Outcome<Unit> flushed = mWriteBack.flush(file.mNode, sync);
  if (!flushed) return flushed;
  // A disk with coarse times may not show it as another version than what was fetched before.
  const Node* node = mNames.find(file.mNode);
  if (node != nullptr && node->place != nullptr) mSmallFiles.forget(node->parent->id, node->name());
  return Unit{};
}

/// The error that an open file is still to report. A close does not count as having
/// reported it: it may be the one of a child process, whose result nobody reads.
Outcome<Unit> Drive::unreportedFailure(const OpenFile& file) {
  const Node& node = *mNames.find(file.mNode);
  const FileState& state = *stateOf(node);
  if (state.failures == file.mReportedFailures) return Unit{};
  if (!mNames.has(node) && !state.creationFailed) return Errno{ESTALE};
  return Errno{refusal(EIO, {{}, state.failedBytes, state.failedEnd, lengthOf(node)})};
}

/// The same for a program that reads the result.
Outcome<Unit> Drive::takeFailure(OpenFile& file) {
  const std::uint64_t failures = stateOf(*mNames.find(file.mNode))->failures;
  Outcome<Unit> failure = unreportedFailure(file);
  file.mReportedFailures = failures;
  return failure;
}

void Drive::release(OpenFile& file) {
  const MutexLock lock(mMutex);
  Node* node = mNames.find(file.mNode);
  if (node->open->handles == 1) {
    // What was written through a mapping after the last close.
    static_cast<void>(mWriteBack.flush(file.mNode, mOptions.syncOnClose));
    setDeferredMode(file.mNode);
  }
  const bool last = --node->open->handles == 0;
  const bool silly = last && node->place != nullptr && node->entry().silly &&
                     !isUnfinished(node->parent->id, node->name());
  const NodeId directory = silly ? node->parent->id : 0;
  const std::string name = silly ? node->name() : std::string();
  mWriteBack.dropIdle(*node);
  mOpenFiles.erase(&file);
  if (silly) removeSilly(directory, name);
}

}  // namespace zor::client
