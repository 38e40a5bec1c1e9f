// Back-pressure: the bound on what a client can have in flight.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "host/io/shared_budget.h"
#include "support/mutex.h"
#include "zor_packet.h"

namespace zor::host {

/// What to do when something is not to be had now.
enum class Waiting { kBlocking, kNonBlocking };

/// Counts the memory of one client's packets: of those that were received and are not yet done
/// with, each together with the reply that it may lead to, and of the replies that wait to be
/// written. One thread at a time receives; it takes from the budget before it makes a packet and
/// waits there, if it blocks, while too much is in flight. Any thread gives back by destroying
/// a packet.
///
/// Two bounds. Requests in flight and the replies that they may lead to never count more than
/// `limit` bytes, or one request by itself when that is larger. And what all clients hold
/// beyond kOwnShare each comes out of `shared`. So a client that does not read its replies
/// leaves the others their share, and what all of them hold is at most the shares and the
/// shared limit. (A listing is as large as its directory, and counts once it is made.)
class ReceiveBudget final : public PacketBudget {
 public:
  static constexpr std::size_t kDefaultLimit = std::size_t{32} << 20;
  /// What a client can always have in flight. More than the requests of this project's own
  /// clients take.
  static constexpr std::size_t kOwnShare = std::size_t{4} << 20;
  /// What a packet counts beside its bytes: the objects around them and the
  /// allocator's share.
  static constexpr std::size_t kPacketOverhead = 256;

  /// `shared` must outlive the budget.
  explicit ReceiveBudget(SharedBudget& shared, std::size_t limit = kDefaultLimit)
      : mShared(shared), mLimit(limit) {}

  /// How many requests are in flight, and what they hold themselves, in bytes.
  std::size_t packets() const noexcept { return mPackets.load(std::memory_order_relaxed); }
  std::size_t bytes() const noexcept { return mRequestBytes.load(std::memory_order_relaxed); }
  /// What requests and replies count together, in bytes.
  std::size_t total() const noexcept { return static_cast<std::size_t>(mTotal.load()); }

  /// What a request counts: its own bytes, and those of the reply that it may lead to.
  struct Charge {
    std::uint32_t request;
    std::uint32_t reply = 0;

    std::int64_t sum() const noexcept { return std::int64_t{request} + reply; }
    /// What ReleasePacket is to be called with.
    std::size_t token() const noexcept { return std::size_t{reply} << 32 | request; }
    static Charge of(std::size_t token) noexcept {
      return {static_cast<std::uint32_t>(token), static_cast<std::uint32_t>(token >> 32)};
    }
  };

  /// Waits until a request may be in flight, and counts it. False when
  /// the budget was stopped; nothing is counted then.
  bool acquire(Charge charge);

  /// The same without waiting: false when there is no room now.
  bool tryAcquire(Charge charge) noexcept;

  /// Counts a reply until it is destroyed. Does not wait: its request has done so.
  void chargeReply(PacketBuffer& reply) noexcept;

  /// Whether this client holds what another one waits for.
  bool keepsOthersWaiting() const noexcept;

  /// Waits until no request is in flight. False when the budget was stopped.
  bool waitIdle();

  /// `token` is a charge's.
  void ReleasePacket(std::size_t token) noexcept override;

  /// Makes every wait, now and later, end at once. False when it was stopped before. Any thread.
  bool stop() noexcept;
  /// Whether the connection has ended.
  bool stopped() const noexcept { return mStopped.load(); }

 private:
  struct Replies final : PacketBudget {
    explicit Replies(ReceiveBudget& budget) noexcept : of(budget) {}
    void ReleasePacket(std::size_t bytes) noexcept override {
      of.uncount(static_cast<std::int64_t>(bytes));
    }
    ReceiveBudget& of;
  };

  bool hasRoom(std::int64_t count) const noexcept;
  bool waitFor(std::int64_t level) EXCLUDES(mMutex);
  bool count(std::int64_t count, bool inTurn) noexcept;
  void uncount(std::int64_t count) noexcept;
  void begin(Charge charge) noexcept;

  SharedBudget& mShared;
  const std::size_t mLimit;
  Replies mReplies{*this};
  std::atomic<std::size_t> mPackets{0};
  std::atomic<std::size_t> mRequestBytes{0};
  std::atomic<std::int64_t> mInFlight{0};    ///< requests and the replies that they may lead to
  std::atomic<std::int64_t> mTotal{0};       ///< these and the replies that there are
  std::atomic<bool> mWaitsForOthers{false};  ///< the receiver does
  std::atomic<std::int64_t> mWakeLevel{-1};  ///< what the receiver waits for; -1: it does not
  Mutex mMutex;                              ///< guards the order of a change and its notification
  Condition mFewer;                          ///< requests in flight
  std::atomic<bool> mStopped{false};
};

}  // namespace zor::host
