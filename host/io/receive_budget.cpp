#include "host/io/receive_budget.h"

#include <algorithm>

namespace zor::host {
namespace {

// What of `total` comes out of the memory that is shared.
std::int64_t beyondShare(std::int64_t total) noexcept {
  return std::max<std::int64_t>(0, total - static_cast<std::int64_t>(ReceiveBudget::kOwnShare));
}

}  // namespace

bool ReceiveBudget::hasRoom(std::int64_t count) const noexcept {
  return mInFlight.load() <= std::max<std::int64_t>(0, static_cast<std::int64_t>(mLimit) - count);
}

// Takes what is needed now first: whoever releases meanwhile only makes it less. (A reply that
// is counted meanwhile was part of its request's count.)
bool ReceiveBudget::count(std::int64_t count, bool inTurn) noexcept {
  const std::int64_t seen = mTotal.load();
  const std::int64_t taken = beyondShare(seen + count) - beyondShare(seen);
  if (!mShared.take(taken, inTurn)) return false;
  const std::int64_t before = mTotal.fetch_add(count);
  mShared.correct(beyondShare(before + count) - beyondShare(before) - taken);
  return true;
}

void ReceiveBudget::uncount(std::int64_t count) noexcept {
  const std::int64_t before = mTotal.fetch_sub(count);
  mShared.giveBack(beyondShare(before) - beyondShare(before - count));
}

void ReceiveBudget::begin(Charge charge) noexcept {
  mPackets.fetch_add(1);
  mRequestBytes.fetch_add(charge.request, std::memory_order_relaxed);
  mInFlight.fetch_add(charge.sum());
}

bool ReceiveBudget::acquire(Charge charge) {
  const std::int64_t amount = charge.sum();
  if (!hasRoom(amount)) {
    const auto limit = static_cast<std::int64_t>(mLimit);
    // Waiting for a good deal more than is needed now keeps the receiver from
    // being woken for every single packet of a client that is always ahead.
    if (!waitFor(std::max<std::int64_t>(0, std::min(limit - amount, limit / 2)))) return false;
  }
  if (mStopped.load()) return false;
  bool counted = count(amount, false);
  if (!counted) {
    mWaitsForOthers.store(true);
    mShared.wait([&](bool inTurn) {
      if (mStopped.load()) return true;
      return counted = inTurn && count(amount, true);
    });
    mWaitsForOthers.store(false);
  }
  if (counted) begin(charge);
  return counted;
}

bool ReceiveBudget::tryAcquire(Charge charge) noexcept {
  const std::int64_t amount = charge.sum();
  if (mStopped.load() || !hasRoom(amount) || !count(amount, false)) return false;
  begin(charge);
  return true;
}

void ReceiveBudget::chargeReply(PacketBuffer& reply) noexcept {
  if (reply.budget != nullptr) return;  // a request that goes back
  reply.budget = &mReplies;
  reply.charge = reply.capacity + kPacketOverhead;
  const auto amount = static_cast<std::int64_t>(reply.charge);
  const std::int64_t before = mTotal.fetch_add(amount);
  mShared.correct(beyondShare(before + amount) - beyondShare(before));
}

bool ReceiveBudget::keepsOthersWaiting() const noexcept {
  return beyondShare(mTotal.load()) > 0 && mShared.waiting() > (mWaitsForOthers.load() ? 1U : 0U);
}

bool ReceiveBudget::waitIdle() { return waitFor(0); }

bool ReceiveBudget::waitFor(std::int64_t level) {
  const MutexLock lock(mMutex);
  // Either a release sees this level, or this thread sees what it released:
  // both sides write first and read then, in one total order.
  mWakeLevel.store(level);
  while (!mStopped.load() && mInFlight.load() > level) mFewer.wait(mMutex);
  mWakeLevel.store(-1);
  return !mStopped.load();
}

void ReceiveBudget::ReleasePacket(std::size_t token) noexcept {
  const Charge charge = Charge::of(token);
  const std::int64_t amount = charge.sum();
  mRequestBytes.fetch_sub(charge.request, std::memory_order_relaxed);
  mPackets.fetch_sub(1);
  uncount(amount);
  const std::int64_t inFlight = mInFlight.fetch_sub(amount) - amount;
  if (inFlight > mWakeLevel.load()) return;
  const MutexLock lock(mMutex);
  mFewer.notifyOne();
}

bool ReceiveBudget::stop() noexcept {
  if (mStopped.exchange(true)) return false;
  mShared.wake();
  const MutexLock lock(mMutex);
  mFewer.notifyOne();
  return true;
}

}  // namespace zor::host
