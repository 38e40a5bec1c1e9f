// The state behind `SmallFiles`. Internal.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "drive/data/directory_scan.h"
#include "drive/data/small_files.h"
#include "support/mutex.h"

namespace zor::client {

inline constexpr std::size_t kFirstBatchFiles = 16;
inline constexpr std::size_t kMaxBatchFiles = 256;

bool isSmallFile(const udisk_stat& attributes);

/// Shared with the replies that are under way.
class SmallFiles::State : public std::enable_shared_from_this<State> {
 public:
  State(DiskRequests& disk, ReadWindow& window, ReadCounters& counters)
      : mDisk(disk), mWindow(window), mCounters(counters) {}

  std::shared_ptr<const SmallFile> get(NodeId directory, PathLease path,
                                       const DirectorySnapshot& listing, std::string_view name,
                                       const udisk_stat& now);
  void forget(NodeId directory, std::string_view name);
  void clear();

 private:
  struct Item {
    std::string name;
    udisk_stat expected{};
    bool cached = true;  ///< may still be given to a program
    wire::Bytes contents{};
  };

  /// Memory that batches hold, also those that only programs still use.
  using Held = std::shared_ptr<std::atomic<std::uint64_t>>;

  struct Batch {
    Batch(NodeId id, Held counter) : directory(id), held(std::move(counter)) {}
    ~Batch() { held->fetch_sub(bytes, std::memory_order_relaxed); }
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    const NodeId directory;
    const Held held;
    std::vector<Item> items;  ///< the contents are set once, on arrival
    std::uint64_t bytes = 0;
    std::size_t cached = 0;  ///< items
    std::size_t used = 0;    ///< items
    bool continued = false;  ///< what follows it was asked for
    bool unproven =
        false;  ///< fetched at the first read in a directory, and not known to be useful
    bool arrived = false;
    int waiting = 0;
    Condition arrival;
    ReadWindow::Ticket ticket;
    ReadWindow::Time made;
    FilePieces reply;
  };
  using BatchPtr = std::shared_ptr<Batch>;

  struct Place {
    BatchPtr batch;
    std::size_t index = 0;
    Item& item() const { return batch->items[index]; }
  };

  struct Directory {
    explicit Directory(ScanOrder order) : scan(order) {}
    DirectoryScan scan;
    std::unordered_map<std::string, Place> cached;  ///< by name
    std::string reached;                            ///< the last file that a batch has reached
    std::size_t nextFiles = kFirstBatchFiles;
    bool scanned = false;
    bool stopped = false;  ///< batches were of no use here
    std::size_t fetched = 0;
    std::size_t used = 0;
    std::size_t strays = 0;
    ReadWindow::Time lastUse;
  };

  using Directories = std::unordered_map<NodeId, Directory>;

  // With mMutex held.
  Directory& directoryAt(NodeId id, ReadWindow::Time time);
  Place take(Directory& directory, std::string_view name, const udisk_stat& now);
  bool startsBatch(Directory& directory, const DirectorySnapshot& listing, std::string_view name,
                   bool& unproven);
  BatchPtr makeBatch(Directory& directory, NodeId id, const PathLease& path,
                     const DirectorySnapshot& listing, std::string_view asked,
                     const udisk_stat* now);
  void retire(const BatchPtr& batch);
  void dropBatch(BatchPtr batch);
  void stop(Directory& directory);
  void forgetDirectory(Directories::iterator directory);

  // Without it.
  void start(const BatchPtr& batch, const PathLease& path);
  void arrived(const BatchPtr& batch, Result<FilePieces> reply);

  DiskRequests& mDisk;
  ReadWindow& mWindow;
  ReadCounters& mCounters;
  const Held mHeld = std::make_shared<std::atomic<std::uint64_t>>(0);

  Mutex mMutex;
  Directories mDirectories;
  std::list<BatchPtr> mBatches;  ///< with something cached, the oldest first
  ScanOrder mOrder = ScanOrder::kByName;
  int mConfidence = 0;  ///< files used since a batch was wasted, up to a bound
  int mUnproven = 0;    ///< batches
};

}  // namespace zor::client
