// The batches behind `SmallFiles`: what goes into them, and how long they stay.
#include <algorithm>
#include <optional>

#include "client/remote_path.h"
#include "drive/data/small_files_state.h"

namespace zor::client {

namespace {

constexpr std::uint64_t kMaxCached = 16U << 20;
constexpr std::size_t kToleratedUnused = 32;

}  // namespace

/// From `asked` on, whose attributes are `now`, or else from where the last
/// batch ended. Nothing when that would not be worth a batch, or when the link
/// is busy and nobody waits.
SmallFiles::State::BatchPtr SmallFiles::State::makeBatch(Directory& directory, NodeId id,
                                                         const PathLease& path,
                                                         const DirectorySnapshot& listing,
                                                         std::string_view asked,
                                                         const udisk_stat* now) {
  if (directory.fetched - directory.used > directory.used + kToleratedUnused) {
    stop(directory);
    return nullptr;
  }
  const auto from = directory.scan.find(listing, now ? asked : directory.reached);
  if (!from) return nullptr;
  auto batch = std::make_shared<Batch>(id, mHeld);
  const std::uint64_t limit = mWindow.batchSize();
  std::uint64_t bytes = 0;
  std::uint64_t cost = 0;
  std::uint32_t total = 0;
  std::string reached = directory.reached;
  for (std::size_t i = *from + (now ? 0 : 1);
       i < listing->size() && batch->items.size() < directory.nextFiles; ++i) {
    const DirectoryItem& item = directory.scan.at(listing, i);
    const udisk_stat& expected = now && i == *from ? *now : item.attributes;
    if (isSmallFile(expected) && directory.cached.count(item.name) == 0) {
      FilePiece piece{joinPath(path.path(), item.name), 0,
                      static_cast<std::uint32_t>(expected.st_size)};
      bytes += piece.size;
      cost += batchCost(piece);
      if (!batch->items.empty() && (bytes > limit || cost > kMaxBatchSize)) break;
      if (piece.path.size() > kMaxPathLength) return nullptr;
      total = static_cast<std::uint32_t>(bytes);
      batch->items.push_back({item.name, expected});
    }
    reached = item.name;
  }
  if (!now && batch->items.empty()) directory.reached = std::move(reached);
  if (batch->items.size() < (now ? 2U : 1U)) return nullptr;
  const std::optional<ReadWindow::Ticket> ticket =
      now ? mWindow.begin(total) : mWindow.tryBegin(total);
  if (!ticket) return nullptr;
  batch->ticket = *ticket;
  batch->ticket.paces = false;  // many files take the host longer than one of that size
  batch->made = ReadWindow::Clock::now();
  while (!mBatches.empty() && mHeld->load(std::memory_order_relaxed) + total > kMaxCached) {
    dropBatch(mBatches.front());
  }
  batch->bytes = total;
  mHeld->fetch_add(total, std::memory_order_relaxed);
  ReadCounters::add(mCounters.smallFileBatches, 1);
  batch->cached = batch->items.size();
  for (std::size_t i = 0; i < batch->items.size(); ++i) {
    directory.cached[batch->items[i].name] = {batch, i};
  }
  directory.fetched += batch->items.size();
  directory.reached = std::move(reached);
  directory.nextFiles = std::min(2 * directory.nextFiles, kMaxBatchFiles);
  mBatches.push_back(batch);
  return batch;
}

/// The batch has nothing for anybody any more.
void SmallFiles::State::retire(const BatchPtr& batch) {
  if (batch->unproven) --mUnproven;
  batch->unproven = false;
  mBatches.remove(batch);
}

void SmallFiles::State::dropBatch(BatchPtr batch) {
  if (2 * batch->used < batch->items.size()) mConfidence = 0;
  ReadCounters::add(mCounters.smallFilesWasted, batch->cached);
  const auto directory = mDirectories.find(batch->directory);
  for (Item& item : batch->items) {
    if (item.cached && directory != mDirectories.end()) {
      directory->second.cached.erase(item.name);
    }
    item.cached = false;
  }
  batch->cached = 0;
  retire(batch);
}

void SmallFiles::State::start(const BatchPtr& batch, const PathLease& path) {
  if (!batch) return;
  std::vector<SmallFileRequest> files;
  files.reserve(batch->items.size());
  for (const Item& item : batch->items) {
    files.push_back({item.name, static_cast<std::uint32_t>(item.expected.st_size)});
  }
  mDisk.readSmallFiles(path, files, [self = shared_from_this(), batch](Result<FilePieces> reply) {
    self->arrived(batch, std::move(reply));
  });
}

void SmallFiles::State::arrived(const BatchPtr& batch, Result<FilePieces> reply) {
  const bool complete = reply && reply->pieces.size() == batch->items.size();
  mWindow.finished(batch->ticket, complete ? reply->storage.size() : 0);
  const MutexLock lock(mMutex);
  if (complete) {
    batch->reply = std::move(*reply);
    for (std::size_t i = 0; i < batch->items.size(); ++i) {
      Item& item = batch->items[i];
      const wire::Bytes piece = batch->reply.pieces[i];
      // Another length belongs to other attributes than those in the listing.
      if (piece.size() == static_cast<std::uint64_t>(item.expected.st_size)) item.contents = piece;
    }
  } else {
    const auto directory = mDirectories.find(batch->directory);
    if (directory != mDirectories.end()) stop(directory->second);
    dropBatch(batch);
  }
  batch->arrived = true;
  if (batch->waiting > 0) batch->arrival.notifyAll();
}

void SmallFiles::State::forgetDirectory(Directories::iterator directory) {
  while (!directory->second.cached.empty()) {
    dropBatch(directory->second.cached.begin()->second.batch);
  }
  mDirectories.erase(directory);
}

void SmallFiles::State::forget(NodeId id, std::string_view name) {
  const MutexLock lock(mMutex);
  const auto directory = mDirectories.find(id);
  if (directory == mDirectories.end()) return;
  auto& cached = directory->second.cached;
  const auto found = cached.find(std::string(name));
  if (found == cached.end()) return;
  const BatchPtr batch = found->second.batch;
  found->second.item().cached = false;
  cached.erase(found);
  ReadCounters::add(mCounters.smallFilesWasted, 1);
  if (--batch->cached == 0) retire(batch);
}

void SmallFiles::State::clear() {
  const MutexLock lock(mMutex);
  while (!mBatches.empty()) dropBatch(mBatches.front());
  mDirectories.clear();
}

}  // namespace zor::client
