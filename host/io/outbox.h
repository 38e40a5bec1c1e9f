// Replies on their way to one client.
#pragma once

#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "host/io/receive_budget.h"
#include "support/mutex.h"
#include "zor_packet.h"

namespace zor::host {

/// Writes packets to a stream socket, whole and in the order in which they came. A packet is
/// written by the thread that brings it, or coalesced with later ones as IoPolicy decides; then
/// it is written with the next one that is not, by `flush`, or by a thread of the outbox once it
/// has waited for a moment. A large one may be left to that thread at once.
///
/// Any thread, but for the construction and destruction.
class Outbox {
 public:
  /// `socket` and `budget` must outlive the outbox, which ends when `budget` is stopped. A
  /// client that reads nothing for the time limit that sending has on `socket` cannot be written
  /// to any more if it holds memory that others wait for. `failed` is called, on any thread, when
  /// the client cannot be written to. Throws std::system_error when there is no thread to be had.
  Outbox(int socket, const ReceiveBudget& budget, std::function<void()> failed);
  /// REQUIRES: the budget is stopped, and nothing blocks writing.
  ~Outbox();
  Outbox(const Outbox&) = delete;
  Outbox& operator=(const Outbox&) = delete;

  /// Takes `size` bytes of `packet` over. Waits while the client does not read. False when the
  /// outbox has ended: nothing is written any more.
  bool send(std::unique_ptr<ZorPacket> packet, std::size_t size);

  /// Writes what was coalesced. Cheap when there is nothing.
  void flush();

  /// Notices that the budget was stopped. Writing must not block any more.
  void wake() noexcept;

  /// How many bytes were written.
  std::uint64_t written() const noexcept { return mWrittenBytes.load(std::memory_order_relaxed); }

 private:
  struct Reply {
    std::unique_ptr<ZorPacket> packet;
    std::size_t size;
  };
  class WriterTurn;

  bool write() REQUIRES(mMutex);
  bool writeParts(iovec* parts, std::size_t count) noexcept REQUIRES(mMutex);
  void run();

  const int mSocket;
  const ReceiveBudget& mBudget;
  const std::function<void()> mFailed;

  Mutex mMutex;     ///< held while writing
  Condition mWork;  ///< of the outbox's own thread
  std::vector<Reply> mReplies GUARDED_BY(mMutex);
  std::size_t mBytes GUARDED_BY(mMutex) = 0;
  std::uint64_t mWrites GUARDED_BY(mMutex) = 0;
  bool mTicking GUARDED_BY(mMutex) = false;     ///< the own thread checks the coalesced replies
  bool mHandedOver GUARDED_BY(mMutex) = false;  ///< the own thread is to write
  std::atomic<bool> mAnyWaiting{false};         ///< changed under mMutex
  std::atomic<std::uint64_t> mWrittenBytes{0};
  std::thread mThread;
};

}  // namespace zor::host
