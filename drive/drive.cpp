// What the drive's operations share: the tree, its freshness, and learning
// from answers.
#include "drive/drive.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <utility>

#include "client/remote_path.h"
#include "drive/open_file.h"

namespace zor::client {

namespace {

constexpr std::string_view kHiddenPrefix = ".udisk-removed-";

}  // namespace

/// Lets the drive wait for answers that it does not take itself.
class Drive::Counting final : public Transport {
 public:
  explicit Counting(Drive& drive) : mDrive(drive) {}

  void submit(OutgoingRequest request, Completion done) override {
    mDrive.mTransport.submit(std::move(request), counted(std::move(done)));
  }
  void submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) override {
    mDrive.mTransport.submitFenced(std::move(request), counted(std::move(done)), std::move(fence));
  }
  void post(std::function<void()> task) override { mDrive.mTransport.post(std::move(task)); }

 private:
  Completion counted(Completion done) {
    const std::lock_guard lock(mDrive.mMutex);
    ++mDrive.mOutstanding;
    return [&drive = mDrive, done = std::move(done)](Result<ReplyPayload> reply) {
      done(std::move(reply));
      const std::lock_guard guard(drive.mMutex);
      if (--drive.mOutstanding == 0) drive.mSettled.notify_all();
    };
  }

  Drive& mDrive;
};

Drive::Drive(Transport& transport, DriveOptions options)
    : mDisk(transport),
      mTransport(transport),
      mOptions(std::move(options)),
      mTree(mOptions.lastingInodes),
      mHiddenNames(std::uint64_t{std::random_device()()} << 32),
      mCounting(std::make_unique<Counting>(*this)),
      mBatchDisk(*mCounting),
      mSmallFiles(mBatchDisk, mReadWindow, mReadCounters),
      mFlusher([this] { flushLoop(); }) {}

Drive::~Drive() {
  {
    Lock lock(mMutex);
    mStop = true;
    mGathered.notify_all();
    mOpenFiles.clear();
    mSettled.wait(lock, [this] { return mOutstanding == 0; });
  }
  mFlusher.join();
}

Drive::Lock Drive::lockNames() {
  Lock lock(mMutex);
  waitForNames(lock);
  return lock;
}

/// Starts what waited for the names.
void Drive::endRenaming() {
  mRenaming = false;
  const std::vector<std::function<void()>> reads = std::exchange(mDeferred, {});
  for (const auto& start : reads) start();
  mSettled.notify_all();
}

/// To be called between a wait for an answer and the use of a path.
void Drive::waitForNames(Lock& lock) {
  mSettled.wait(lock, [this] { return !mRenaming; });
}

Outcome<Node*> Drive::directoryNode(NodeId id) {
  Node* node = mTree.find(id);
  if (node == nullptr || !mTree.has(*node)) return Errno{ESTALE};
  if (!node->directory) return Errno{ENOTDIR};
  return node;
}

bool Drive::isFresh(const Directory& directory) const {
  return directory.complete && Clock::now() - directory.confirmed < directory.lifetime;
}

bool Drive::isFresh(const Node& directory, const Entry& entry) const {
  return validity(directory, entry).count() > 0;
}

/// Whether only a question about this very file can tell its attributes.
bool Drive::isDoubtful(const Entry& entry) const {
  if (entry.stale) return true;
  // Another name of the file may have been used to change it.
  return !isDirectory(entry.attributes) && entry.attributes.st_nlink > 1 &&
         entry.linkEpoch != mLinkEpoch;
}

std::chrono::nanoseconds Drive::validity(const Node& directory, const Entry& entry) const {
  if (entry.attributes.st_nlink <= 1 && entry.node != nullptr && entry.node->file &&
      entry.node->file->ahead) {
    return std::chrono::milliseconds(1);  // nobody knows better than we do
  }
  if (isDoubtful(entry)) return {};
  const Directory& known = *directory.directory;
  Clock::time_point until = entry.confirmed + mOptions.attributeTimeout;
  if (known.complete) until = std::max(until, known.confirmed + known.lifetime);
  if (entry.node != nullptr && entry.node->directory) {
    until = std::max(until, entry.node->directory->selfConfirmed + mOptions.attributeTimeout);
  }
  return until - Clock::now();
}

std::chrono::nanoseconds Drive::kernelValidity(const Node& directory, const Entry& entry) const {
  // The kernel does not know that two of its files are one. And of what is on its
  // way to the host, the host will tell what came of it.
  if (!isDirectory(entry.attributes) && entry.attributes.st_nlink > 1) return {};
  if (entry.node != nullptr && entry.node->file && entry.node->file->ahead) return {};
  return std::max(std::chrono::nanoseconds(0), validity(directory, entry));
}

/// How many names of the same file were removed, but are still open. Those that
/// the host has removed as well are no longer in the tree.
std::uint64_t Drive::hiddenNames(const Entry& entry) const {
  if (entry.attributes.st_nlink <= 1) return 1;
  std::uint64_t count = 0;
  for (const auto& [directory, name] : mHiddenPlaces) {
    const Entry* hidden = findHidden(directory, name);
    if (hidden != nullptr && hidden->attributes.st_ino == entry.attributes.st_ino) ++count;
  }
  return count;
}

const Entry* Drive::findHidden(NodeId directory, const std::string& name) const {
  const Node* node = mTree.find(directory);
  if (node == nullptr || !node->directory) return nullptr;
  const auto at = node->directory->entries.find(name);
  return at != node->directory->entries.end() && at->second.hidden ? &at->second : nullptr;
}

udisk_stat Drive::visible(const Entry& entry) const {
  udisk_stat attributes = entry.attributes;
  attributes.st_nlink = std::max<std::uint64_t>(attributes.st_nlink, 1);
  if (attributes.st_nlink > 1 || entry.hidden) {
    attributes.st_nlink -= std::min<std::uint64_t>(attributes.st_nlink, hiddenNames(entry));
  }
  if (entry.node != nullptr && entry.node->file && entry.node->file->lateMode) {
    attributes.st_mode = (attributes.st_mode & S_IFMT) | *entry.node->file->lateMode;
  }
  // What was written under one of several names is known from the host, once it was asked.
  if (entry.node != nullptr && entry.node->file && entry.node->file->ahead &&
      (entry.attributes.st_nlink <= 1 || isDoubtful(entry))) {
    const FileState& file = *entry.node->file;
    attributes.st_size = std::max(attributes.st_size, file.end);
    attributes.st_mtim = file.lastWrite;
    attributes.st_ctim = file.lastWrite;
  }
  return attributes;
}

NodeEntry Drive::enterLocked(Node& directory, Entries::value_type& place) {
  Node& node = mTree.nodeAt(directory, place);
  ++node.references;
  return {node.id, visible(place.second), kernelValidity(directory, place.second),
          mAnyCase == true};
}

/// Of a name that was just made.
Outcome<NodeEntry> Drive::enterByName(NodeId directory, const std::string& name) {
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const auto at = (*parent)->directory->entries.find(name);
  if (at == (*parent)->directory->entries.end()) return Errno{EIO};
  return enterLocked(**parent, *at);
}

void Drive::learn(NodeId directory, const std::string& name, const Result<udisk_stat>& result,
                  std::uint64_t epoch) {
  Node* parent = mTree.find(directory);
  if (parent == nullptr || !parent->directory) return;
  Entries& entries = parent->directory->entries;
  if (!result) {
    // Gone, or the disk fails: whoever needs it next finds out which.
    const auto refused = entries.find(name);
    if (result.error().kind == ErrorKind::kFailed && refused != entries.end()) {
      refused->second.stale = true;
    }
    return;
  }
  auto at = entries.find(name);
  if (at != entries.end() && ((((at->second.attributes.st_mode ^ result->st_mode) & S_IFMT) != 0 &&
                               at->second.attributes.st_mode != 0) ||
                              !mTree.fits(at->second, *result))) {
    mTree.remove(*parent, name);
    at = entries.end();
  }
  if (at == entries.end()) {
    at = entries.emplace(name, Entry{}).first;
    parent->directory->snapshot = nullptr;
  }
  Entry& entry = at->second;
  // A reader only changes the access time, and goes on walking.
  if (stampOf(entry.attributes) != stampOf(*result) ||
      entry.attributes.st_mode != result->st_mode) {
    parent->directory->snapshot = nullptr;
  }
  entry.attributes = *result;
  entry.confirmed = Clock::now();
  entry.stale = false;
  entry.unreadable = false;
  entry.linkEpoch = epoch;
  if (entry.node == nullptr) return;
  if (entry.node->directory) {
    entry.node->directory->self = *result;
    entry.node->directory->selfConfirmed = entry.confirmed;
  }
  if (FileState* file = entry.node->file.get();
      file != nullptr && file->gather.empty() && file->inFlight == 0) {
    file->end = 0;
    file->ahead = false;
  }
}

void Drive::learnSelf(NodeId directory, const Result<udisk_stat>& result) {
  Node* node = mTree.find(directory);
  if (node == nullptr || !node->directory || !result || !isDirectory(*result)) return;
  node->directory->self = *result;
  node->directory->selfConfirmed = Clock::now();
  if (node->place != nullptr) {
    Entry& own = node->place->second;
    if (own.attributes != *result && node->parent != nullptr) {
      node->parent->directory->snapshot = nullptr;
    }
    own.attributes = *result;
    own.confirmed = node->directory->selfConfirmed;
    own.stale = false;
  }
}

void Drive::Burst::queryFile(const std::string& path, NodeId directory, const std::string& name) {
  add<udisk_stat>([&](auto done) { mDrive.mDisk.attributes(path, std::move(done)); },
                  [&drive = mDrive, directory, name, epoch = mDrive.mLinkEpoch](auto& result) {
                    drive.learn(directory, name, result, epoch);
                  });
}

void Drive::Burst::queryDirectory(NodeId directory) {
  const Node* node = mDrive.mTree.find(directory);
  const std::optional<std::string> path = node == nullptr ? std::nullopt : mDrive.mTree.path(*node);
  if (!path) return;
  add<udisk_stat>(
      [&](auto done) { mDrive.mDisk.attributes(*path, std::move(done)); },
      [&drive = mDrive, directory](auto& result) { drive.learnSelf(directory, result); });
}

void Drive::report(const std::string& sentence) const {
  if (mOptions.report) mOptions.report(sentence);
}

std::string Drive::hiddenName() {
  std::array<char, 17> digits{};
  std::snprintf(digits.data(), digits.size(), "%016llx",
                static_cast<unsigned long long>(++mHiddenNames));
  return std::string(kHiddenPrefix) + digits.data();
}

DriveCounters Drive::counters() {
  const std::lock_guard lock(mMutex);
  DriveCounters counters = mCounters;
  counters.knownNames = mTree.size();
  counters.pendingBytes = mBytesInFlight;
  counters.smallFileHits = mReadCounters.smallFileHits;
  counters.smallFileBatches = mReadCounters.smallFileBatches;
  counters.smallFilesWasted = mReadCounters.smallFilesWasted;
  counters.readAheadBytes = mReadCounters.readAheadHits;
  counters.readAheadWasted = mReadCounters.readAheadWasted;
  mTree.forEachOpen([&](const Node& node) {
    counters.pendingBytes += node.file->gather.size();
    if (!node.file->gather.empty() || node.file->inFlight > 0) ++counters.pendingFiles;
  });
  return counters;
}

}  // namespace zor::client
