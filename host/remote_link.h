// The stream to one remote.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <span>

#include "receive_budget.h"
#include "support/unique_fd.h"
#include "zor_packet.h"

namespace zor::host {

/// A connected stream socket with packets back to back in both directions.
/// `receive` belongs to one thread; everything else may be called on any.
class RemoteLink {
 public:
  explicit RemoteLink(UniqueFd socket) noexcept : mSocket(std::move(socket)) {}

  /// Writes the whole of `packet`, waiting for as long as the remote takes to
  /// read. 0, or -1 when the packet is malformed or the link has ended; a
  /// failed write ends the link.
  int send(const ZorPacket& packet) noexcept;

  /// Receives into `space`. The number of bytes; 0 when the remote has closed
  /// its side or the link has ended; a negative errno value on failure.
  ssize_t receive(std::span<iovec> space) noexcept;

  /// Ends both directions: whoever waits in any operation returns.
  void end() noexcept;
  bool ended() const noexcept { return mEnded.load(); }

  /// Whether the remote is gone altogether, so that nothing sent would arrive.
  bool remoteGone() const noexcept;

  /// Waits until the announcement of the disk has been sent. False when the
  /// link ended or the time ran out before.
  bool waitAnnounced(std::chrono::milliseconds limit);

  ReceiveBudget& budget() noexcept { return mBudget; }

 private:
  bool sendAll(const std::uint8_t* data, std::size_t size) noexcept;

  const UniqueFd mSocket;
  ReceiveBudget mBudget;
  std::atomic<bool> mEnded{false};
  std::mutex mSendMutex;  ///< keeps the packets of different threads apart
  std::mutex mStateMutex;
  std::condition_variable mStateCond;
  bool mAnnounced = false;  ///< guarded by mStateMutex
};

}  // namespace zor::host
