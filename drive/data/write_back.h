// What programs wrote, on its way to the host.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "drive/data/losses.h"
#include "drive/data/read_window.h"
#include "drive/data/write_buffer.h"
#include "drive/requests/compound_request.h"
#include "drive/requests/outcome.h"

namespace zor::client {

/// A file that is open or has data that is not on the disk yet.
struct FileState final : OpenState {
  bool isUnacknowledged() const override { return !buffer.empty() || !inFlight.none(); }

  WriteBuffer buffer;             ///< the dirty ranges that were not sent
  Clock::time_point buffered{};   ///< when the oldest byte of it was written
  PendingReplies inFlight;        ///< requests that a close waits for
  PendingReplies creation;        ///< and the attributes that follow it
  bool needsSync = false;         ///< written since the last sync
  unsigned waiters = 0;           ///< threads that use this object later on
  std::uint64_t writes = 0;       ///< by programs, ever
  std::uint64_t failures = 0;     ///< failed writes, ever
  std::uint64_t failedBytes = 0;  ///< of the largest that failed
  std::uint64_t failedEnd = 0;    ///< where the furthest that failed was to end
};

/// Of nodes with an open state, or null.
inline FileState* stateOf(const Node& node) { return static_cast<FileState*>(node.open.get()); }

/// Buffers small writes, sends them in batches, and bounds what is in flight over all
/// files. A failure is counted in the file's state.
///
/// All members are to be called with the mutex held. Those that wait release it.
class WriteBack {
 public:
  /// `work` is notified when `sendDue` has something new to do, or a file lost data.
  WriteBack(HostAccess& host, Losses& losses, Condition& work)
      : mHost(host), mLosses(losses), mWork(work) {}

  /// The file's state, created if it has none.
  FileState& open(Node& node);
  /// Frees the state of a file that nobody has open any more.
  void dropIdle(Node& node);

  /// Waits for room in the buffer. REQUIRES: the file has a handle.
  void waitForRoom(NodeId id, std::int64_t offset, std::size_t size);
  /// Appends to the buffer, which has room; true when it should be sent now.
  bool add(Node& node, std::int64_t offset, wire::Bytes data);
  /// Sends the buffer as soon as there is room on the link. REQUIRES: a handle.
  void waitToSend(NodeId id);

  /// Sends the buffer at once. REQUIRES: the gate is open, or `rename`.
  void send(Node& node, const PathGate::Rename* rename = nullptr);
  /// Sends the buffers that are old; when the next one will be.
  Clock::time_point sendDue(Clock::time_point now);

  /// Waits until the host has all that was written to the file and has returned its
  /// attributes, and, with `sync`, until it is on the disk. ESTALE: there is no such node.
  /// Other errors show in the file's failures.
  Outcome<Unit> flush(NodeId id, bool sync);
  /// Waits until the host has what was written to files under their present paths.
  void drainBelow(const PathGate::Rename& rename, Node& top);

  /// Starts the creation of a file that is pending in the cache; its failure is one of the
  /// file. REQUIRES: the gate is open.
  void create(Node& node, std::uint32_t mode);
  /// Waits until the host has returned what it created, or has refused to.
  void waitForCreation(Node& node);

  /// Counts a failure of the file.
  void failed(Node& node, const std::string& path);

  std::uint64_t bytesInFlight() const noexcept { return mBytesInFlight; }

  /// Two programs that append under different names must not take the same end for theirs.
  class AppendTurn {
   public:
    explicit AppendTurn(WriteBack& writeBack);
    ~AppendTurn();
    AppendTurn(const AppendTurn&) = delete;
    AppendTurn& operator=(const AppendTurn&) = delete;

   private:
    WriteBack& mWriteBack;
  };

 private:
  /// Keeps a file's state while somebody waits.
  class Pin {
   public:
    Pin(WriteBack& writeBack, Node& node) : mWriteBack(writeBack), mNode(node) {
      ++stateOf(node)->waiters;
    }
    ~Pin() {
      --stateOf(mNode)->waiters;
      mWriteBack.dropIdle(mNode);
    }
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;

   private:
    WriteBack& mWriteBack;
    Node& mNode;
  };

  void send(Node& node, const ReadWindow::Ticket& ticket, const PathGate::Rename* rename);
  void acknowledged(Node& node);

  HostAccess& mHost;
  Losses& mLosses;
  Condition& mWork;
  ReadWindow mWindow;
  std::size_t mBytesInFlight = 0;
  Condition mRoom;  ///< a write was acknowledged, or a buffer sent
  bool mAppending = false;
  Condition mAppended;  ///< the turn is over
};

}  // namespace zor::client
