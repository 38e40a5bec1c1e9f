// The disk as a tree of files for programs: what lies between a file system
// interface such as FUSE and the requests of the protocol.
//
// All members may be called from any number of threads at once, and wait for
// the host where they must; never longer than the link's time limit.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "client/disk.h"
#include "client/presence.h"
#include "drive/drive_statistics.h"
#include "drive/node.h"
#include "drive/outcome.h"
#include "drive/read_ahead.h"
#include "drive/read_window.h"
#include "drive/small_files.h"

namespace zor::client {

struct DriveOptions {
  /// How long what is known of a file or a directory counts without a question.
  std::chrono::milliseconds attributeTimeout{1000};
  /// Setting times and owners, which the disk may not be able to, succeeds silently.
  bool quiet = false;
  /// A close waits until the data is on the disk itself, not only in the hands
  /// of the host's system.
  bool syncOnClose = true;
  /// The host serves batches of small files.
  bool smallFiles = true;
  /// A file keeps its inode number for as long as it exists.
  bool lastingInodes = true;
  /// Takes sentences for people; from any thread.
  std::function<void(const std::string&)> report{};
  /// Takes the path of each file that lost data, once, soon after.
  std::function<void(const std::string&)> lost{};
};

/// Attributes, and for how long the kernel may use them without asking again.
struct NodeAttributes {
  udisk_stat attributes{};
  std::chrono::nanoseconds validFor{};
};

/// The answer to a lookup. A `node` of 0: there is no such name (for as long as
/// `validFor` tells); else the kernel holds one more reference.
struct NodeEntry {
  NodeId node = 0;
  udisk_stat attributes{};
  std::chrono::nanoseconds validFor{};
  bool hasSpellings = false;  ///< what is done under another one changes this name, too
};

/// A change that the host refused, as far as it says something about the reason.
struct Attempt {
  std::string_view name{};  ///< that was to be made
  std::uint64_t bytes = 0;  ///< that were to be written
  std::uint64_t end = 0;    ///< where they were to end, or the file was
  std::uint64_t size = 0;   ///< of the file
};

class OpenFile;

struct OpenResult {
  OpenFile* file = nullptr;  ///< until `release`
  bool keepCache = false;    ///< the kernel's pages of this file are still right
};

class Drive {
 public:
  /// `transport` must outlive the drive.
  Drive(Transport& transport, DriveOptions options);
  /// All that was written must have been flushed: see `finish`.
  ~Drive();

  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;

  // Names and attributes (drive_names.cpp).
  Outcome<NodeEntry> lookup(NodeId directory, std::string_view name);
  void forget(NodeId node, std::uint64_t references);
  /// `asOfNow`: what was written is on its way, and the host tells what comes of it.
  /// Else a file that is being written may be told from what was written.
  Outcome<NodeAttributes> attributes(NodeId node, bool asOfNow = true);
  Outcome<udisk_statvfs> statistics();

  // Directories (drive_listing.cpp).
  Outcome<DirectorySnapshot> openDirectory(NodeId directory);
  /// The inode numbers of "." and ".."; 0 when unknown.
  std::pair<std::uint64_t, std::uint64_t> dotNumbers(NodeId directory);
  /// The answer to a lookup of `item`, which comes from a snapshot, without
  /// asking the host. A `node` of 0: it is gone, or was never to be seen.
  NodeEntry enter(NodeId directory, const DirectoryItem& item);

  // Changes of names (drive_creation.cpp, drive_removal.cpp). Flags as in
  // open(2) and renameat2(2).
  struct Created {
    NodeEntry entry;
    OpenResult open;
  };
  Outcome<Created> create(NodeId directory, std::string_view name, std::uint32_t mode, int flags);
  Outcome<NodeEntry> makeDirectory(NodeId directory, std::string_view name, std::uint32_t mode);
  Outcome<NodeEntry> link(NodeId existing, NodeId directory, std::string_view name);
  Outcome<Unit> unlink(NodeId directory, std::string_view name);
  Outcome<Unit> removeDirectory(NodeId directory, std::string_view name);
  Outcome<Unit> rename(NodeId from, std::string_view name, NodeId to, std::string_view newName,
                       unsigned flags);

  // Changes of attributes (drive_attributes.cpp).
  Outcome<Unit> setLength(NodeId node, std::uint64_t length);
  Outcome<Unit> setMode(NodeId node, std::uint32_t mode);
  /// An id of 2^32 - 1 stays as it is.
  Outcome<Unit> setOwner(NodeId node, std::uint32_t uid, std::uint32_t gid);
  /// The protocol cannot: EPERM, unless `quiet`. "Now" for a file that was just
  /// written is what it has already.
  Outcome<Unit> setTimes(NodeId node, bool now);

  // Files (drive_reading.cpp, drive_writing.cpp).
  Outcome<OpenResult> open(NodeId node, int flags);
  /// Fewer bytes than asked for only at the end of the file.
  Outcome<ReadParts> read(OpenFile& file, std::int64_t offset, std::uint32_t size);
  /// All of it, or an errno; what a write without an error leaves behind may
  /// still fail later, which the next write or sync then tells, and every flush before it.
  /// `appends`: `offset` is where the kernel takes the end to be. It does not see
  /// what was done through another name of the file, so the drive's own idea counts.
  Outcome<Unit> write(OpenFile& file, std::int64_t offset, wire::Bytes data, bool appends = false);
  /// For every close(2): waits until all that was written is on the disk.
  Outcome<Unit> flush(OpenFile& file);
  Outcome<Unit> sync(OpenFile& file);
  /// The last close; `file` is gone afterwards.
  void release(OpenFile& file);

  /// Writes what is left and returns the paths of all files that lost data
  /// since the beginning. No program may use the drive any more.
  std::vector<std::string> finish();

  /// The files that lost data so far.
  std::vector<std::string> lost();

  DriveCounters counters();

  /// Gives back the memory of what was learnt and is not used any more. Happens by
  /// itself from time to time; `now` is for tests.
  void dropUnused(Clock::time_point now);

 private:
  friend class OpenFile;
  using Lock = std::unique_lock<std::mutex>;

  // What is learnt from the host is put into the tree by the completions, so in
  // the order in which the host served the requests: what is known never goes
  // back to an older state.

  /// Runs `update(result)` with the drive locked when the answer comes.
  template <class T, class Update>
  Callback<T> whenAnswered(Update update) {
    ++mOutstanding;
    return [this, update = std::move(update)](Result<T> result) mutable {
      const std::lock_guard lock(mMutex);
      update(result);
      if (result && !mUnfinished.empty()) {
        mUndoAt = {};
        mGathered.notify_one();
      }
      if (--mOutstanding == 0) mSettled.notify_all();
    };
  }

  class Burst;
  class Counting;
  class Renaming;

  /// A file that was renamed to a hidden name to be replaced, and was not.
  struct Unfinished {
    NodeId directory;
    std::string hidden;
    std::string name;
  };

  /// A burst of one request; its answer.
  template <class T, class Start, class Update>
  Result<T> ask(Lock& lock, Start start, Update update);

  // drive.cpp
  Lock lockNames();
  void waitForNames(Lock& lock);
  void endRenaming();
  Outcome<Node*> directoryNode(NodeId id);
  bool isFresh(const Node& directory, const Entry& entry) const;
  bool isFresh(const Directory& directory) const;
  bool isDoubtful(const Entry& entry) const;
  std::chrono::nanoseconds validity(const Node& directory, const Entry& entry) const;
  std::chrono::nanoseconds kernelValidity(const Node& directory, const Entry& entry) const;
  std::uint64_t hiddenNames(const Entry& entry) const;
  const Entry* findHidden(NodeId directory, const std::string& name) const;
  udisk_stat visible(const Entry& entry) const;
  NodeEntry enterLocked(Node& directory, Entries::value_type& place);
  Outcome<NodeEntry> enterByName(NodeId directory, const std::string& name);
  void learn(NodeId directory, const std::string& name, const Result<udisk_stat>& result,
             std::uint64_t epoch);
  void learnSelf(NodeId directory, const Result<udisk_stat>& result);
  void report(const std::string& sentence) const;
  std::string hiddenName();

  // drive_presence.cpp
  Presence look(Lock& lock, NodeId directory, const std::string& name);
  Presence presenceAt(Lock& lock, const std::string& path);
  Presence confirmAbsence(Lock& lock, NodeId directory, const std::string& name);
  bool isRemoved(Lock& lock, NodeId directory);
  int whyUnknown(NodeId directory) const;

  // drive_refusal.cpp
  int refusal(Lock& lock, int otherwise, const Attempt& attempt = {});
  bool isPathTooLong(NodeId directory, std::string_view name) const;
  bool isElsewhere(const udisk_stat& file, NodeId directory) const;

  // drive_names.cpp
  Outcome<Unit> refresh(Lock& lock, NodeId directory, const std::string& name);
  Outcome<NodeAttributes> rootAttributes(Lock& lock);
  Outcome<Unit> catchUp(Lock& lock, NodeId id);

  // drive_listing.cpp
  Outcome<Unit> refreshDirectory(Lock& lock, NodeId id);
  Outcome<Unit> load(Lock& lock, NodeId id, const std::string& path);

  // drive_creation.cpp
  Outcome<Unit> createFile(Lock& lock, NodeId directory, const std::string& name,
                           std::uint32_t mode, bool mayBeToldLater);
  using Make = std::function<void(const std::string& path, Callback<Unit> done)>;
  Outcome<Unit> makeHere(Lock& lock, NodeId directory, const std::string& name, const Make& make);
  Outcome<Unit> makeElsewhere(Lock& lock, NodeId directory, const std::string& name,
                              const Make& make, bool isDir);
  Outcome<bool> linkOnce(Lock& lock, NodeId existing, NodeId directory, const std::string& key);
  void createWithoutWaiting(Node& parent, const std::string& path, const std::string& name,
                            std::uint32_t mode);

  // drive_removal.cpp
  Outcome<Unit> hide(Lock& lock, NodeId directory, const std::string& name,
                     const std::string& hidden);
  Entry* markHidden(NodeId directory, const std::string& name);
  Outcome<Unit> renameLocked(Lock& lock, NodeId from, const std::string& name, NodeId to,
                             const std::string& newName);
  Outcome<Unit> renameHeld(Lock& lock, NodeId from, const std::string& name, NodeId to,
                           const std::string& newName);
  void settleBelow(Lock& lock, Node& node);
  Outcome<Unit> removeName(Lock& lock, NodeId directory, const std::string& name, bool isDir);
  void keepRemoved(NodeId directory, const std::string& name);

  // drive_replacing.cpp
  Outcome<Unit> renameOverOpen(Lock& lock, NodeId from, const std::string& name, NodeId to,
                               const std::string& newName);
  Outcome<bool> linkHidden(Lock& lock, NodeId directory, const std::string& name,
                           const std::string& hidden);
  Outcome<Unit> renameInTwo(Lock& lock, NodeId from, const std::string& name, NodeId to,
                            const std::string& newName, const std::string& hidden);
  void splitHidden(NodeId directory, const std::string& name, const std::string& hidden);
  bool joinHidden(NodeId directory, const std::string& hidden, const std::string& name);
  void undoLater(Unfinished one);
  bool isUnfinished(NodeId directory, const std::string& hidden) const;
  Outcome<Unit> unhide(Lock& lock, const Unfinished& one);
  bool undo(Lock& lock, const Unfinished& one);
  void undoUnfinished(Lock& lock);

  // drive_attributes.cpp
  template <class Start>
  Outcome<Unit> changeInode(NodeId id, Start start);
  void giveMode(Lock& lock, NodeId directory, const std::string& name, std::uint32_t mode);

  // drive_spelling.cpp
  std::string spelling(const Node& directory, std::string_view name) const;
  bool learnSpelling(Lock& lock, NodeId directory);

  // drive_losses.cpp
  void writeFailed(Node& node, const std::string& path);
  Outcome<Unit> untoldFailure(Lock& lock, const OpenFile& file);
  Outcome<Unit> tellFailure(Lock& lock, OpenFile& file);
  void tellOfLosses(Lock& lock);

  // drive_permissions.cpp
  Outcome<Unit> askToWrite(Lock& lock, NodeId id);
  Outcome<Unit> askToRead(Lock& lock, NodeId id);
  void knowWritable(const udisk_stat& attributes);

  // drive_reading.cpp
  void startRead(NodeId node, std::int64_t offset, std::uint32_t size, Callback<FileData> done);
  void beginRead(const Node* node, std::int64_t offset, std::uint32_t size,
                 Callback<FileData> done);
  OpenResult openNode(Node& node, bool writable);

  // drive_identity.cpp
  bool isIdentified(const Node& node) const;
  void identify(const Node& node);
  void noteWrongFile(Node& node);

  // drive_writing.cpp
  void lookBeforeWriting(Lock& lock, NodeId id);
  void setLateMode(Lock& lock, NodeId id);
  bool lookBeforeAppending(Lock& lock, OpenFile& file);
  bool mayWrite(const FileState& file) const;
  void waitToWrite(Lock& lock, NodeId node);
  void sendGathered(Node& node);
  void sendGathered(Node& node, const ReadWindow::Ticket& ticket);
  void answered(Node& node);
  void dropIdle(Node& node);
  Outcome<Unit> settleFile(Lock& lock, const OpenFile& file, bool sync);
  Outcome<Unit> settle(Lock& lock, NodeId node, bool sync);
  void flushLoop();

  Disk mDisk;
  Transport& mTransport;
  const DriveOptions mOptions;

  mutable std::mutex mMutex;
  std::condition_variable mSettled;  ///< something that others wait for has ended
  NodeTree mTree;
  bool mRenaming = false;                        ///< paths may not be used for requests now
  std::vector<std::function<void()>> mDeferred;  ///< requests that wait for the rename's end
  /// Changes with each request that may change a file which has several names.
  /// The host serves in order, so what was asked for since the last one is true.
  std::uint64_t mLinkEpoch = 0;
  bool mAppendingToLinked = false;  ///< somebody is about to append to such a file
  std::size_t mOutstanding = 0;     ///< answers that will use this object
  std::size_t mBytesInFlight = 0;   ///< of writes
  std::vector<std::string> mLost;   ///< files that lost data
  std::size_t mLossesTold = 0;      ///< how many of them, in order
  std::uint64_t mTrimmed = 0;       ///< dropped names whose memory was given back
  std::uint64_t mHiddenNames = 0;
  std::vector<std::pair<NodeId, std::string>> mHiddenPlaces;  ///< some may be gone
  std::vector<Unfinished> mUnfinished;                        ///< undone by mFlusher
  Clock::time_point mUndoAt{};                                ///< at once, when the host answers
  std::unordered_map<OpenFile*, std::unique_ptr<OpenFile>> mOpenFiles;
  std::set<Rights> mWritable;    ///< those of files that the host could open for writing
  std::optional<bool> mAnyCase;  ///< the disk does not tell capitals from small letters
  DriveCounters mCounters;
  bool mStop = false;

  ReadWindow mReadWindow;
  ReadWindow mWriteWindow;
  ReadCounters mReadCounters;
  std::unique_ptr<Counting> mCounting;  ///< what batches go through
  Disk mBatchDisk;
  SmallFiles mSmallFiles;
  std::condition_variable mGathered;
  std::thread mFlusher;  ///< sends what has been gathered for long; the last member
};

/// Requests that travel together and are waited for together.
class Drive::Burst {
 public:
  /// The drive's mutex must be held whenever a member is called.
  explicit Burst(Drive& drive) : mDrive(drive) {}

  /// Makes a request by `start(callback)`; `update(result)` runs when it is
  /// answered, with the lock.
  template <class T, class Start, class Update>
  void add(Start start, Update update) {
    ++mState->unanswered;
    start(mDrive.whenAnswered<T>(
        [state = mState, update = std::move(update)](Result<T>& result) mutable {
          update(result);
          if (--state->unanswered == 0 && state->waiting) state->done.set_value();
        }));
  }

  /// Learns the attributes of a file, or of a directory.
  void queryFile(const std::string& path, NodeId directory, const std::string& name);
  void queryDirectory(NodeId directory);

  void wait(Lock& lock) {
    if (mState->unanswered == 0) return;
    mState->waiting = true;
    std::future<void> done = mState->done.get_future();
    lock.unlock();
    done.wait();
    lock.lock();
  }

 private:
  struct State {
    std::size_t unanswered = 0;
    bool waiting = false;
    std::promise<void> done;
  };

  Drive& mDrive;
  std::shared_ptr<State> mState = std::make_shared<State>();
};

/// While one exists, no request is made with a path that is about to change.
class Drive::Renaming {
 public:
  Renaming(Drive& drive, Lock& lock) : mDrive(drive) {
    drive.waitForNames(lock);
    drive.mRenaming = true;
  }
  /// The drive's mutex must be held.
  ~Renaming() { mDrive.endRenaming(); }

  Renaming(const Renaming&) = delete;
  Renaming& operator=(const Renaming&) = delete;

 private:
  Drive& mDrive;
};

template <class T, class Start, class Update>
Result<T> Drive::ask(Lock& lock, Start start, Update update) {
  std::optional<Result<T>> answer;
  Burst burst(*this);
  burst.add<T>(std::move(start), [&answer, &update](Result<T>& result) {
    update(result);
    answer.emplace(std::move(result));
  });
  burst.wait(lock);
  return std::move(*answer);
}

}  // namespace zor::client
