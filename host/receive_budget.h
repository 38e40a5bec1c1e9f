// The bound on what a remote can have in flight.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>

#include "zor_packet.h"

namespace zor::host {

/// What to do when something is not to be had now.
enum class Patience { kWait, kNone };

/// Counts the memory of the packets that were received and are not yet done
/// with. One thread at a time receives; it calls `acquire` before it makes a packet
/// and waits there while too much is in flight, unless it looks for room first. Any
/// thread gives back by destroying the packet.
///
/// The bound: packets in flight never take more than `limit` bytes, or one
/// packet by itself when that is larger. With kDefaultLimit and the largest
/// packet that is 64 MiB; beside them exist at most the replies that the
/// outbox holds and the one that is being made, which carries at most 64 MiB of
/// a request's or of files' data. (A listing is as large as its directory.)
class ReceiveBudget final : public PacketBudget {
 public:
  static constexpr std::size_t kDefaultLimit = std::size_t{32} << 20;
  /// What a packet counts beside its bytes: the objects around them and the
  /// allocator's share.
  static constexpr std::size_t kPacketOverhead = 256;

  /// `idle` is called, on any thread, when the last packet is done with.
  explicit ReceiveBudget(std::function<void()> idle = {}, std::size_t limit = kDefaultLimit)
      : mIdle(std::move(idle)), mLimit(limit) {}

  /// How many packets are in flight, and what they count together, in bytes.
  std::size_t packets() const noexcept { return mPackets.load(std::memory_order_relaxed); }
  std::size_t bytes() const noexcept {
    return static_cast<std::size_t>(mInFlight.load(std::memory_order_relaxed));
  }

  /// Whether `bytes` more may be in flight now.
  bool hasRoom(std::size_t bytes) const noexcept;

  /// Waits until `bytes` more may be in flight, and counts them. False when
  /// the budget was stopped; nothing is counted then.
  bool acquire(std::size_t bytes);

  /// Waits until nothing is in flight. False when the budget was stopped.
  bool waitIdle();

  void ReleasePacket(std::size_t bytes) noexcept override;

  /// Makes every waiting, now and later, end at once. Any thread.
  void stop() noexcept;

 private:
  bool waitFor(std::int64_t level);

  const std::function<void()> mIdle;
  const std::size_t mLimit;
  std::atomic<std::size_t> mPackets{0};
  std::atomic<std::int64_t> mInFlight{0};
  std::atomic<std::int64_t> mWakeLevel{-1};  ///< what the receiver waits for; -1: it does not
  std::mutex mMutex;
  std::condition_variable mCond;
  std::atomic<bool> mStopped{false};
};

}  // namespace zor::host
