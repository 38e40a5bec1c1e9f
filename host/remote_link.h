// The stream to one remote.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <span>

#include "host/outbox.h"
#include "host/receive_budget.h"
#include "support/unique_fd.h"
#include "zor_packet.h"

namespace zor::host {

/// A connected stream socket with packets back to back in both directions.
/// `receive` belongs to one thread at a time; everything else may be called on any.
class RemoteLink {
 public:
  /// `shared` must outlive the link. Throws std::system_error when there is no thread
  /// to be had.
  RemoteLink(UniqueFd socket, SharedBudget& shared);

  /// Takes over `packet`, to be written soon and whole; waits while the remote
  /// does not read and much is waiting already. 0, or -1 when the packet is
  /// malformed or the link has ended; a failed write ends the link.
  int send(std::unique_ptr<ZorPacket> packet) noexcept;

  /// Keeps the next packet that is sent for `waitDiverted`, which returns nothing when the
  /// link ended or the time ran out before.
  void divertNext();
  std::unique_ptr<ZorPacket> waitDiverted(std::chrono::milliseconds limit);

  /// Waits until everything has been written, or the link has ended.
  void drain() { mOutbox.drain(); }

  /// See Outbox.
  void hold(bool on) noexcept { mOutbox.hold(on); }
  void flushUnlessHeld() { mOutbox.flushUnlessHeld(); }

  /// Receives into `space`. The number of bytes; 0 when the remote has closed
  /// its side or the link has ended; a negative errno value on failure, -EAGAIN
  /// when there is nothing to receive and `patience` is kNone, -ETIMEDOUT when the
  /// remote sends nothing for long and holds memory that others wait for.
  ssize_t receive(std::span<iovec> space, Patience patience) noexcept;

  /// Waits until there is something to receive, or the end. False when the time
  /// ran out before.
  bool waitReadable(std::chrono::milliseconds limit) const noexcept;

  /// Ends both directions: whoever waits in any operation returns.
  void end() noexcept;
  bool ended() const noexcept { return mEnded.load(); }

  /// Whether the remote is gone altogether, so that nothing sent would arrive.
  bool remoteGone() const noexcept;

  /// Waits until the announcement of the disk has been sent. False when the
  /// link ended or the time ran out before.
  bool waitAnnounced(std::chrono::milliseconds limit);

  ReceiveBudget& budget() noexcept { return mBudget; }
  const ReceiveBudget& budget() const noexcept { return mBudget; }

  std::uint64_t receivedBytes() const noexcept { return mReceived.load(std::memory_order_relaxed); }
  std::uint64_t sentBytes() const noexcept { return mOutbox.written(); }

 private:
  const UniqueFd mSocket;
  std::atomic<bool> mEnded{false};
  std::atomic<std::uint64_t> mReceived{0};
  std::mutex mStateMutex;
  std::condition_variable mStateCond;
  bool mAnnounced = false;  ///< this and the next by mStateMutex
  std::unique_ptr<ZorPacket> mDiverted;
  std::atomic<bool> mDiverts{false};
  ReceiveBudget mBudget;
  Outbox mOutbox;
};

}  // namespace zor::host
