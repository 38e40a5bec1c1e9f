// The disk as a tree of files for programs: what lies between a file system
// interface such as FUSE and the requests of the protocol.
//
// All members may be called from any number of threads at once, and wait for
// the host where they must; never longer than the link's time limit.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "client/presence.h"
#include "drive/data/losses.h"
#include "drive/data/small_files.h"
#include "drive/data/write_back.h"
#include "drive/drive_counters.h"
#include "drive/open_file.h"
#include "drive/requests/counting_transport.h"
#include "drive/requests/outcome.h"

namespace zor::client {

struct DriveOptions {
  /// The attribute cache lifetime.
  std::chrono::milliseconds attributeTimeout{1000};
  /// Setting times and owners, which the disk may not be able to, succeeds silently.
  bool quiet = false;
  /// A close waits until the data is on the disk itself, and not only in the cache of the
  /// host's system.
  bool syncOnClose = true;
  /// The host serves batches of small files.
  bool smallFiles = true;
  /// A file keeps its inode number for as long as it exists.
  bool lastingInodes = true;
  /// Takes sentences for people; from any thread.
  std::function<void(const std::string&)> report{};
  /// Takes the path of each file that lost data, once, soon after.
  std::function<void(const std::string&)> lost{};
  /// For tests.
  std::function<Clock::time_point()> now = &Clock::now;
};

/// Attributes, and for how long the kernel may use them without asking again.
struct NodeAttributes {
  udisk_stat attributes{};
  std::chrono::nanoseconds validFor{};
};

/// The result of a lookup. A `node` of 0: there is no such name (for as long as
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
  /// `asOfNow`: what was written is sent, and the host reports the result. Otherwise the
  /// attributes of a dirty file may be derived from what was written.
  Outcome<NodeAttributes> attributes(NodeId node, bool asOfNow = true);
  Outcome<udisk_statvfs> statfs();

  // Directories (drive_listing.cpp).
  Outcome<DirectorySnapshot> openDirectory(NodeId directory);
  /// The inode numbers of "." and ".."; 0 when unknown.
  std::pair<std::uint64_t, std::uint64_t> dotNumbers(NodeId directory);
  /// The result of a lookup of `item`, which comes from a snapshot, without
  /// asking the host. A `node` of 0: it is gone, or was never to be seen.
  NodeEntry enter(NodeId directory, const DirectoryItem& item);

  // Changes of names (drive_creation.cpp, drive_removal.cpp, drive_rename.cpp). Flags as in
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
  /// All of it, or an errno. The data may still fail to arrive later, which the next write
  /// or sync then reports, and every flush before it.
  /// `appends`: `offset` is where the kernel takes the end to be. It does not see
  /// what was done through another name of the file, so the drive's own idea counts.
  Outcome<Unit> write(OpenFile& file, std::int64_t offset, wire::Bytes data, bool appends = false);
  /// For every close(2): waits until all that was written is on the disk.
  Outcome<Unit> flush(OpenFile& file);
  Outcome<Unit> sync(OpenFile& file);
  /// The last close; `file` is gone afterwards.
  void release(OpenFile& file);

  /// Writes what is left and returns the paths of all files that lost data since the
  /// beginning. No program may use the drive any more.
  std::vector<std::string> finish();

  /// The files that lost data so far.
  std::vector<std::string> lost();

  DriveCounters counters();

  /// Gives back the memory of what was learned and is not used any more. Happens by
  /// itself from time to time; `now` is for tests.
  void dropUnused(Clock::time_point now);

 private:
  /// A file that got a silly name to be replaced, and was not.
  struct Unfinished {
    NodeId directory;
    std::string silly;
    std::string name;
  };
  /// Changes that were lost with the link, and have not happened: a host that comes back as
  /// often may not stay.
  static constexpr int kMaxRepeats = 10;
  using Make = std::function<void(const PathLease& at, Callback<Unit> done)>;
  using Rename = PathGate::Rename;

  // Those below are called with the mutex held. Those that wait release it, so nodes that
  // were found before may be gone then, and directories may have other paths.

  // drive.cpp
  Outcome<Node*> directoryNode(NodeId id) REQUIRES(mMutex);
  NodeEntry enterLocked(Node& directory, Entries::value_type& place) REQUIRES(mMutex);
  Outcome<NodeEntry> enterByName(NodeId directory, const std::string& name) REQUIRES(mMutex);
  bool isPathTooLong(NodeId directory, std::string_view name) REQUIRES(mMutex);
  void report(const std::string& sentence) const;
  void backgroundLoop();
  void reportLosses() REQUIRES(mMutex);

  // drive_presence.cpp
  Presence revalidate(NodeId directory, const std::string& name) REQUIRES(mMutex);
  Presence presenceAt(NodeId directory, const std::string& name, const Rename* rename = nullptr)
      REQUIRES(mMutex);
  Presence confirmAbsence(NodeId directory, const std::string& name) REQUIRES(mMutex);
  bool isRemoved(NodeId directory) REQUIRES(mMutex);
  int whyUnknown(NodeId directory) REQUIRES(mMutex);

  // drive_refusal.cpp
  int refusal(int otherwise, const Attempt& attempt = {}, const Rename* rename = nullptr)
      REQUIRES(mMutex);
  bool isElsewhere(const udisk_stat& file, NodeId directory) REQUIRES(mMutex);

  // drive_names.cpp
  Outcome<Unit> refresh(NodeId directory, const std::string& name) REQUIRES(mMutex);
  Outcome<NodeAttributes> rootAttributes() REQUIRES(mMutex);
  Outcome<Unit> catchUp(NodeId id) REQUIRES(mMutex);
  bool learnSpelling(NodeId directory) REQUIRES(mMutex);

  // drive_listing.cpp
  Outcome<Unit> refreshDirectory(NodeId id) REQUIRES(mMutex);
  void waitForLoad(NodeId id) REQUIRES(mMutex);
  Outcome<Unit> load(NodeId id) REQUIRES(mMutex);
  bool check(NodeId id, bool& lost) REQUIRES(mMutex);

  // drive_creation.cpp
  Outcome<Unit> createFile(NodeId directory, const std::string& name, std::uint32_t mode,
                           bool mayBeReportedLater) REQUIRES(mMutex);
  Outcome<Unit> make(NodeId directory, const std::string& name, bool isDir, const Make& make)
      REQUIRES(mMutex);
  Outcome<Unit> makeElsewhere(NodeId directory, const std::string& name, bool isDir,
                              const Make& make) REQUIRES(mMutex);
  Outcome<bool> linkOnce(NodeId existing, NodeId directory, const std::string& key)
      REQUIRES(mMutex);

  // drive_removal.cpp
  Outcome<Unit> removeName(NodeId directory, const std::string& name, bool isDir) REQUIRES(mMutex);

  // drive_rename.cpp
  Outcome<Unit> renameLocked(NodeId from, const std::string& name, NodeId to,
                             const std::string& newName) REQUIRES(mMutex);
  Outcome<Unit> renameHeld(const Rename& rename, NodeId from, const std::string& name, NodeId to,
                           const std::string& newName) REQUIRES(mMutex);
  int renameRefusal(const Rename& rename, const Presence& here, const Presence& there, NodeId to,
                    const std::string& newName) REQUIRES(mMutex);

  // silly_rename.cpp
  std::string sillyName() REQUIRES(mMutex);
  Outcome<Unit> sillyRename(NodeId directory, const std::string& name) REQUIRES(mMutex);
  Outcome<Unit> restoreName(const Rename& rename, const Unfinished& one) REQUIRES(mMutex);
  bool isUnusedSilly(NodeId directory, const std::string& silly) REQUIRES(mMutex);
  void removeSilly(NodeId directory, const std::string& silly) REQUIRES(mMutex);

  // replacing_rename.cpp
  Outcome<Unit> renameOverOpen(NodeId from, const std::string& name, NodeId to,
                               const std::string& newName) REQUIRES(mMutex);
  Outcome<bool> linkSilly(const Rename& rename, NodeId directory, const std::string& name,
                          const std::string& silly) REQUIRES(mMutex);
  Outcome<Unit> renameInTwo(const Rename& rename, NodeId from, const std::string& name, NodeId to,
                            const std::string& newName, const std::string& silly) REQUIRES(mMutex);
  void splitSilly(NodeId directory, const std::string& name, const std::string& silly)
      REQUIRES(mMutex);
  bool joinSilly(NodeId directory, const std::string& silly, const std::string& name)
      REQUIRES(mMutex);
  void undoLater(Unfinished one) REQUIRES(mMutex);
  bool isUnfinished(NodeId directory, const std::string& silly) const REQUIRES(mMutex);
  bool undo(const Unfinished& one) REQUIRES(mMutex);
  void undoUnfinished() REQUIRES(mMutex);
  void hostReplied();

  // drive_attributes.cpp
  using Change = std::function<void(const PathLease& at, Callback<Unit> done)>;
  Outcome<Unit> changeInode(NodeId id, const Change& change) REQUIRES(mMutex);
  void setDeferredMode(NodeId id) REQUIRES(mMutex);
  void setModeLater(NodeId directory, const std::string& name, std::uint32_t mode) REQUIRES(mMutex);
  Status setLongLength(NodeId id, std::uint64_t length) REQUIRES(mMutex);

  // drive_permissions.cpp
  Outcome<Unit> checkWritable(NodeId id) REQUIRES(mMutex);
  Outcome<Unit> checkReadable(NodeId id) REQUIRES(mMutex);
  void knowWritable(const udisk_stat& attributes) REQUIRES(mMutex);

  // drive_reading.cpp
  OpenResult openNode(Node& node, bool writable) REQUIRES(mMutex);

  // drive_writing.cpp
  void revalidateBeforeWriting(NodeId id) REQUIRES(mMutex);
  bool findEnd(OpenFile& file) REQUIRES(mMutex);
  Outcome<Unit> flushFile(const OpenFile& file, bool sync) REQUIRES(mMutex);
  Outcome<Unit> unreportedFailure(const OpenFile& file) REQUIRES(mMutex);
  Outcome<Unit> takeFailure(OpenFile& file) REQUIRES(mMutex);

  const DriveOptions mOptions;
  CountingTransport mTransport;
  DiskRequests mDisk{mTransport};

  mutable Mutex mMutex;
  NameCache mNames GUARDED_BY(mMutex);
  PathGate mGate GUARDED_BY(mMutex){mMutex, mNames};
  HostAccess mHost{mMutex, mNames, mGate, mDisk, [this] { hostReplied(); }};
  Condition mWork;  ///< there is something for the background thread
  Losses mLosses GUARDED_BY(mMutex);
  WriteBack mWriteBack GUARDED_BY(mMutex){mHost, mLosses, mWork};
  std::uint64_t mSillyNames GUARDED_BY(mMutex);
  std::vector<Unfinished> mUnfinished GUARDED_BY(mMutex);  ///< undone by mBackground
  Clock::time_point mUndoAt GUARDED_BY(mMutex){};
  std::unordered_map<OpenFile*, std::unique_ptr<OpenFile>> mOpenFiles GUARDED_BY(mMutex);
  /// Those of files that the host could open for writing.
  std::set<Rights> mWritable GUARDED_BY(mMutex);
  DriveCounters mCounters GUARDED_BY(mMutex);
  std::uint64_t mTrimmed GUARDED_BY(mMutex) = 0;  ///< dropped names whose memory was given back
  bool mStop GUARDED_BY(mMutex) = false;

  ReadWindow mReadWindow;
  ReadCounters mReadCounters;
  SmallFiles mSmallFiles{mDisk, mReadWindow, mReadCounters};
  ReadResources mReading;
  std::thread mBackground;  ///< the last member
};

}  // namespace zor::client
