// What the drive's operations share, and what it does by itself.
#include "drive/drive.h"

#include <malloc.h>

#include <algorithm>
#include <random>
#include <utility>

#include "client/remote_path.h"

namespace zor::client {

namespace {

/// Hosts hand paths to their system, which takes this much behind the first "/".
constexpr std::size_t kMaxPath = 4095;

constexpr std::chrono::milliseconds kUndoAgainAfter{500};

/// Dropped names and nodes, some hundred bytes each, for which it is worth to ask the
/// allocator for the memory, which it would keep for this process else.
constexpr std::uint64_t kWorthTrimming = 10000;

}  // namespace

Drive::Drive(Transport& transport, DriveOptions options)
    : mOptions(std::move(options)),
      mTransport(transport),
      mNames({mOptions.attributeTimeout, mOptions.lastingInodes, mOptions.now}),
      mSillyNames(std::uint64_t{std::random_device()()} << 32),
      mReading{mHost, mWriteBack, mReadWindow, mReadCounters,
               mOptions.smallFiles ? &mSmallFiles : nullptr},
      mBackground([this] { backgroundLoop(); }) {}

Drive::~Drive() {
  {
    const MutexLock lock(mMutex);
    mStop = true;
    mWork.notifyAll();
  }
  mBackground.join();
  {
    const MutexLock lock(mMutex);
    mOpenFiles.clear();
  }
  mTransport.drain();
}

Outcome<Node*> Drive::directoryNode(NodeId id) {
  Node* node = mNames.find(id);
  if (node == nullptr || !mNames.has(*node)) return Errno{ESTALE};
  if (!node->directory) return Errno{ENOTDIR};
  return node;
}

NodeEntry Drive::enterLocked(Node& directory, Entries::value_type& place) {
  Node& node = mNames.nodeAt(directory, place);
  ++node.references;
  return {node.id, mNames.shown(place.second), mNames.kernelValidity(directory, place.second),
          mNames.ignoresCase()};
}

/// Of a name that was just created.
Outcome<NodeEntry> Drive::enterByName(NodeId directory, const std::string& name) {
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  Entries::value_type* place = mNames.findPlace(directory, name);
  if (place == nullptr) return Errno{EIO};
  return enterLocked(**parent, *place);
}

bool Drive::isPathTooLong(NodeId directory, std::string_view name) {
  const Node* node = mNames.find(directory);
  const std::optional<std::string> path = node == nullptr ? std::nullopt : mNames.path(*node);
  return path && joinPath(*path, name).size() > 1 + kMaxPath;
}

void Drive::report(const std::string& sentence) const {
  if (mOptions.report) mOptions.report(sentence);
}

void Drive::forget(NodeId id, std::uint64_t references) {
  const MutexLock lock(mMutex);
  Node* node = mNames.find(id);
  if (node == nullptr) return;
  node->references -= std::min(node->references, references);
  mNames.releaseIfUnused(node);
}

void Drive::dropUnused(Clock::time_point now) {
  {
    const MutexLock lock(mMutex);
    mNames.dropUnused(now);
    if (mNames.dropped() - mTrimmed < kWorthTrimming) return;
    mTrimmed = mNames.dropped();
  }
  ::malloc_trim(0);
}

void Drive::backgroundLoop() {
  const MutexLock lock(mMutex);
  Clock::time_point dropAt = mNames.now() + kMaxListingAge;
  while (!mStop) {
    reportLosses();
    const Clock::time_point now = mNames.now();
    if (now >= dropAt) {
      mMutex.unlock();
      dropUnused(now);
      mMutex.lock();
      dropAt = now + kMaxListingAge;
    }
    Clock::time_point next = std::min(dropAt, mWriteBack.sendDue(now));
    if (!mUnfinished.empty()) {
      if (now >= mUndoAt) {
        undoUnfinished();
        mUndoAt = mNames.now() + kUndoAgainAfter;
        continue;
      }
      next = std::min(next, mUndoAt);
    }
    if (!mStop && mLosses.allReported()) mWork.waitFor(mMutex, next - now);
  }
}

void Drive::reportLosses() {
  const std::vector<std::string> fresh = mLosses.takeUnreported();
  if (fresh.empty() || !mOptions.lost) return;
  mMutex.unlock();
  for (const std::string& path : fresh) mOptions.lost(path);
  mMutex.lock();
}

std::vector<std::string> Drive::lost() {
  const MutexLock lock(mMutex);
  return mLosses.paths();
}

std::vector<std::string> Drive::finish() {
  const MutexLock lock(mMutex);
  undoUnfinished();
  for (const Unfinished& one : mUnfinished) {
    report("'" + one.name + "' could not be replaced; it is called '" + one.silly +
           "' on the disk");
  }
  std::vector<NodeId> open;
  std::vector<std::pair<NodeId, std::string>> silly;
  mNames.forEachOpen([&, this](Node& node) {
    mMutex.assertHeld();
    open.push_back(node.id);
    if (node.place != nullptr && node.entry().silly &&
        !isUnfinished(node.parent->id, node.name())) {
      silly.emplace_back(node.parent->id, node.name());
    }
  });
  for (const NodeId id : open) {
    static_cast<void>(mWriteBack.flush(id, true));
    setDeferredMode(id);
  }
  for (const auto& [directory, name] : silly) {
    static_cast<void>(removeName(directory, name, false));
  }
  return mLosses.paths();
}

DriveCounters Drive::counters() {
  const MutexLock lock(mMutex);
  DriveCounters counters = mCounters;
  counters.knownNames = mNames.size();
  counters.failedWrites = mLosses.failedWrites();
  counters.pendingBytes = mWriteBack.bytesInFlight();
  counters.smallFileHits = mReadCounters.smallFileHits;
  counters.smallFileBatches = mReadCounters.smallFileBatches;
  counters.smallFilesWasted = mReadCounters.smallFilesWasted;
  counters.readAheadBytes = mReadCounters.readAheadHits;
  counters.readAheadWasted = mReadCounters.readAheadWasted;
  mNames.forEachOpen([&](const Node& node) {
    counters.pendingBytes += stateOf(node)->buffer.size();
    if (node.open->isUnacknowledged()) ++counters.pendingFiles;
  });
  return counters;
}

}  // namespace zor::client
