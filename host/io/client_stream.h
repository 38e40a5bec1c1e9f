// The stream to one client.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <span>

#include "host/io/outbox.h"
#include "host/io/receive_budget.h"
#include "support/mutex.h"
#include "support/unique_fd.h"
#include "zor_packet.h"

namespace zor::host {

/// A connected stream socket with packets back to back in both directions.
/// `receive` belongs to one thread at a time; everything else may be called on any.
class ClientStream {
 public:
  /// `shared` must outlive the stream. Throws std::system_error when there is no thread
  /// to be had.
  ClientStream(UniqueFd socket, SharedBudget& shared);
  ~ClientStream() { end(); }
  ClientStream(const ClientStream&) = delete;
  ClientStream& operator=(const ClientStream&) = delete;

  /// Takes over `packet`, to be written soon and whole; waits while the client does not read. 0,
  /// or -1 when the packet is malformed or the stream has ended; a failed write ends it.
  int send(std::unique_ptr<ZorPacket> packet) noexcept;

  /// Keeps the next packet that is sent for `waitDiverted`, which returns nothing when the
  /// link ended or the time ran out before.
  void divertNext();
  std::unique_ptr<ZorPacket> waitDiverted(std::chrono::milliseconds limit);

  /// Writes the replies that were coalesced. Cheap when there are none.
  void flush() { mOutbox.flush(); }

  /// Receives into `space`. The number of bytes; 0 when the client has closed
  /// its side or the stream has ended; a negative errno value on failure, -EAGAIN
  /// when there is nothing to receive and `waiting` is kNonBlocking, -ETIMEDOUT when the
  /// client sends nothing for long and holds memory that others wait for.
  ssize_t receive(std::span<iovec> space, Waiting waiting) noexcept;

  /// Waits until there is something to receive, or the end. False when the time
  /// ran out before.
  bool waitReadable(std::chrono::milliseconds limit) const noexcept;

  /// Ends both directions: whoever waits in any operation returns.
  void end() noexcept;
  bool ended() const noexcept { return mBudget.stopped(); }

  /// Whether the client is gone altogether, so that nothing sent would arrive.
  bool clientGone() const noexcept;

  /// Waits until the announcement of the disk has been sent. False when the
  /// link ended or the time ran out before.
  bool waitAnnounced(std::chrono::milliseconds limit);

  ReceiveBudget& budget() noexcept { return mBudget; }
  const ReceiveBudget& budget() const noexcept { return mBudget; }

  std::uint64_t receivedBytes() const noexcept { return mReceived.load(std::memory_order_relaxed); }
  std::uint64_t sentBytes() const noexcept { return mOutbox.written(); }

 private:
  const UniqueFd mSocket;
  std::atomic<std::uint64_t> mReceived{0};
  Mutex mMutex;
  Condition mAnnouncement, mDiversion;
  bool mAnnounced GUARDED_BY(mMutex) = false;
  std::unique_ptr<ZorPacket> mDiverted GUARDED_BY(mMutex);
  std::atomic<bool> mDiverts{false};
  ReceiveBudget mBudget;
  Outbox mOutbox;
};

}  // namespace zor::host
