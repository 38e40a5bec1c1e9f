#include "drive/data/small_files.h"

#include <sys/stat.h>

#include <algorithm>

#include "client/remote_path.h"
#include "drive/data/small_files_state.h"

namespace zor::client {

namespace {

constexpr std::size_t kMaxDirectories = 64;
constexpr auto kLifetime = std::chrono::seconds(10);
constexpr std::uint64_t kMaxShared = 8U << 20;  ///< beyond it programs get copies
constexpr int kConfident = 8;  ///< uses after which the first read in a directory is a scan
constexpr int kMaxUnproven = 2;
constexpr std::size_t kToleratedStrays = 2;

bool sameContents(const udisk_stat& a, const udisk_stat& b) {
  return a.st_size == b.st_size && a.st_mtim == b.st_mtim && a.st_ctim == b.st_ctim;
}

}  // namespace

// Of a file with several names, what was fetched under one of them may be changed
// under another.
bool isSmallFile(const udisk_stat& attributes) {
  return S_ISREG(attributes.st_mode) && attributes.st_nlink <= 1 && attributes.st_size > 0 &&
         attributes.st_size <= kMaxSmallFile;
}

std::shared_ptr<const SmallFile> SmallFiles::State::get(NodeId id, PathLease leased,
                                                        const DirectorySnapshot& listing,
                                                        std::string_view name,
                                                        const udisk_stat& now) {
  std::optional<PathLease> path(std::move(leased));
  if (!isSmallFile(now) || name.empty()) return nullptr;
  BatchPtr demanded;
  BatchPtr following;
  MutexLock lock(mMutex);
  const auto time = ReadWindow::Clock::now();
  while (!mBatches.empty() && time - mBatches.front()->made > kLifetime) {
    dropBatch(mBatches.front());
  }
  Directory& directory = directoryAt(id, time);
  Place place = take(directory, name, now);
  if (!place.batch) {
    bool unproven = false;
    if (startsBatch(directory, listing, name, unproven)) {
      demanded = makeBatch(directory, id, *path, listing, name, &now);
    }
    if (demanded) {
      demanded->unproven = unproven;
      mUnproven += unproven ? 1 : 0;
      place = take(directory, name, now);
    }
  }
  directory.scan.moveTo(name);
  if (!place.batch) return nullptr;
  Batch& batch = *place.batch;
  if (!batch.continued && 2 * batch.used >= batch.items.size() && directory.scanned) {
    following = makeBatch(directory, id, *path, listing, {}, nullptr);
    batch.continued = following != nullptr;
  }
  lock.unlock();
  start(demanded, *path);
  start(following, *path);
  path.reset();
  lock.lock();
  ++batch.waiting;
  while (!batch.arrived) batch.arrival.wait(mMutex);
  --batch.waiting;
  const wire::Bytes contents = place.item().contents;
  if (contents.empty()) return nullptr;
  ReadCounters::add(mCounters.smallFileHits, 1);
  if (mHeld->load(std::memory_order_relaxed) <= kMaxShared) {
    return std::make_shared<const SmallFile>(SmallFile{std::move(place.batch), contents});
  }
  lock.unlock();
  // One file that stays open must not keep a whole batch in memory for long.
  auto copy = std::make_shared<Buffer>(contents);
  const wire::Bytes copied = copy->bytes();
  return std::make_shared<const SmallFile>(SmallFile{std::move(copy), copied});
}

SmallFiles::State::Directory& SmallFiles::State::directoryAt(NodeId id, ReadWindow::Time time) {
  auto found = mDirectories.find(id);
  if (found != mDirectories.end() && time - found->second.lastUse > kLifetime) {
    mDirectories.erase(found);  // its batches are older still
    found = mDirectories.end();
  }
  if (found == mDirectories.end()) {
    if (mDirectories.size() >= kMaxDirectories) {
      const auto oldest = std::min_element(
          mDirectories.begin(), mDirectories.end(),
          [](const auto& a, const auto& b) { return a.second.lastUse < b.second.lastUse; });
      forgetDirectory(oldest);
    }
    found = mDirectories.try_emplace(id, mOrder).first;
  }
  found->second.lastUse = time;
  return found->second;
}

SmallFiles::State::Place SmallFiles::State::take(Directory& directory, std::string_view name,
                                                 const udisk_stat& now) {
  const auto found = directory.cached.find(std::string(name));
  if (found == directory.cached.end()) return {};
  Place place = std::move(found->second);
  directory.cached.erase(found);
  place.item().cached = false;
  Batch& batch = *place.batch;
  const bool used = sameContents(place.item().expected, now);
  if (used) {
    ++directory.used;
    ++batch.used;
    mConfidence = std::min(mConfidence + 1, kConfident);
    if (batch.unproven && batch.used >= 2) {
      batch.unproven = false;
      --mUnproven;
    }
  } else {
    ReadCounters::add(mCounters.smallFilesWasted, 1);
  }
  if (--batch.cached == 0) retire(place.batch);
  return used ? std::move(place) : Place{};
}

bool SmallFiles::State::startsBatch(Directory& directory, const DirectorySnapshot& listing,
                                    std::string_view name, bool& unproven) {
  if (directory.stopped) return false;
  if (!directory.scan.begun()) {
    if (mConfidence < kConfident) return false;
    if (mUnproven >= kMaxUnproven) {
      mConfidence = 0;  // one file of each directory is no scan
      return false;
    }
    directory.nextFiles = kMaxBatchFiles;
    unproven = true;
  } else if (!directory.scan.follows(listing, name)) {
    if (directory.scanned && ++directory.strays > directory.used / 2 + kToleratedStrays) {
      stop(directory);
    }
    return false;
  }
  mOrder = directory.scan.order();
  directory.scanned = true;
  return true;
}

void SmallFiles::State::stop(Directory& directory) {
  directory.stopped = true;
  directory.scanned = false;
  mConfidence = 0;
}

SmallFiles::SmallFiles(DiskRequests& disk, ReadWindow& window, ReadCounters& counters)
    : mState(std::make_shared<State>(disk, window, counters)) {}

SmallFiles::~SmallFiles() { mState->clear(); }

std::shared_ptr<const SmallFile> SmallFiles::get(NodeId directory, PathLease path,
                                                 const DirectorySnapshot& listing,
                                                 std::string_view name, const udisk_stat& now) {
  return mState->get(directory, std::move(path), listing, name, now);
}

void SmallFiles::forget(NodeId directory, std::string_view name) {
  mState->forget(directory, name);
}

void SmallFiles::clear() { mState->clear(); }

}  // namespace zor::client
