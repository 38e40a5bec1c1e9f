#include "receive_budget.h"

#include <algorithm>

namespace zor::host {

bool ReceiveBudget::hasRoom(std::size_t bytes) const noexcept {
  return mInFlight.load() <= static_cast<std::int64_t>(mLimit) - static_cast<std::int64_t>(bytes);
}

bool ReceiveBudget::acquire(std::size_t bytes) {
  const auto count = static_cast<std::int64_t>(bytes);
  if (!hasRoom(bytes)) {
    const auto limit = static_cast<std::int64_t>(mLimit);
    // Waiting for a good deal more than is needed now keeps the receiver from
    // being woken for every single packet of a remote that is always ahead.
    if (!waitFor(std::max<std::int64_t>(0, std::min(limit - count, limit / 2)))) return false;
  }
  if (mStopped.load()) return false;
  mPackets.fetch_add(1);
  mInFlight.fetch_add(count);
  return true;
}

bool ReceiveBudget::waitIdle() { return waitFor(0); }

bool ReceiveBudget::waitFor(std::int64_t level) {
  std::unique_lock lock(mMutex);
  // Either a release sees this level, or this thread sees what it released:
  // both sides write first and read then, in one total order.
  mWakeLevel.store(level);
  mCond.wait(lock, [&] { return mStopped.load() || mInFlight.load() <= level; });
  mWakeLevel.store(-1);
  return !mStopped.load();
}

void ReceiveBudget::ReleasePacket(std::size_t bytes) noexcept {
  const auto count = static_cast<std::int64_t>(bytes);
  if (mPackets.fetch_sub(1) == 1 && mIdle) mIdle();
  const std::int64_t inFlight = mInFlight.fetch_sub(count) - count;
  if (inFlight > mWakeLevel.load()) return;
  const std::lock_guard lock(mMutex);
  mCond.notify_one();
}

void ReceiveBudget::stop() noexcept {
  const std::lock_guard lock(mMutex);
  mStopped.store(true);
  mCond.notify_one();
}

}  // namespace zor::host
