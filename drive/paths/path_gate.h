// The only source of paths for requests.
//
// Requests carry paths, and a rename changes the paths of everything below it. The host
// serves requests in the order in which they are handed to the link, and the link keeps
// that order when it repeats them. So a path is right when its request is handed over
// before that of the rename, and wrong when it was made before and is handed over behind.
// A lease spans the time between: from the making of the path until its requests have been
// handed over.
//
// A rename closes the gate, so that no more leases are made, and waits for those that
// exist. Then it alone makes requests. The gate opens when the tree shows what became of
// the rename: when its link was lost, only after the host was asked. Undoing a rename is a
// rename like any other.
//
// Nobody waits for a reply or for the gate while holding a lease, so a rename waits for
// leases only as long as it takes to hand requests over. A thread that needs several leases takes
// them without releasing the mutex in between.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "drive/metadata/name_cache.h"
#include "support/mutex.h"

namespace zor::client {

class PathGate;

/// A path that stays right while this object lives. Belongs to the thread that took it.
class PathLease {
 public:
  PathLease(PathLease&& other) noexcept
      : mGate(std::exchange(other.mGate, nullptr)), mPath(std::move(other.mPath)) {}
  PathLease& operator=(PathLease&&) = delete;
  ~PathLease();

  /// For messages, and for the requests of DiskRequests.
  const std::string& path() const noexcept { return mPath; }

 private:
  friend class PathGate;
  PathLease(PathGate* gate, std::string path) : mGate(gate), mPath(std::move(path)) {}

  PathGate* mGate;  ///< that counts it; null when it does not
  std::string mPath;
};

/// All members are to be called with the mutex held, and may release it while they wait:
/// nodes that were found before may be gone then.
class PathGate {
 public:
  PathGate(Mutex& mutex, const NameCache& names) : mMutex(mutex), mNames(names) {}

  /// Waits while a rename is under way. Nothing when the node has no path any more.
  std::optional<PathLease> lease(NodeId node);
  std::optional<PathLease> lease(NodeId directory, std::string_view name);

  void waitUntilOpen();

  /// Runs `task` as soon as the gate is open, with the mutex held: at once, or at the end
  /// of the rename. For threads that must not wait.
  void whenOpen(std::function<void()> task);

  bool isOpen() const noexcept { return mOpen; }

  /// To be called before a wait: a lease would stop all renames meanwhile.
  static void assertNoLeaseHere();

  /// While one exists, nobody else has a lease.
  class Rename {
   public:
    /// Waits for other renames, and for all leases.
    explicit Rename(PathGate& gate);
    ~Rename();
    Rename(const Rename&) = delete;
    Rename& operator=(const Rename&) = delete;

    std::optional<PathLease> lease(NodeId node) const;
    std::optional<PathLease> lease(NodeId directory, std::string_view name) const;

   private:
    PathGate& mGate;
  };

 private:
  friend class PathLease;

  std::optional<std::string> pathOf(NodeId node) const;
  std::optional<PathLease> counted(std::optional<std::string> path);
  void returned();

  Mutex& mMutex;
  const NameCache& mNames;
  bool mOpen = true;
  Condition mOpened;
  std::vector<std::function<void()>> mTasks;  ///< for the end of the rename

  Mutex mLeaseMutex;  ///< taken after the other
  unsigned mLeases GUARDED_BY(mLeaseMutex) = 0;
  Condition mReturned;  ///< the last lease was
};

}  // namespace zor::client
