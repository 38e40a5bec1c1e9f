#include "host/io/shared_budget.h"

namespace zor::host {

bool SharedBudget::take(std::int64_t bytes, bool inTurn) noexcept {
  if (bytes <= 0) return true;
  if (!inTurn && mWaiting.load() != 0) return false;
  std::int64_t taken = mTaken.load();
  do {
    if (taken > 0 && taken + bytes > mLimit) return false;
  } while (!mTaken.compare_exchange_weak(taken, taken + bytes));
  return true;
}

// Either a thread that waits sees what was given back, or it is seen here: both
// sides write first and read then, in one total order.
void SharedBudget::giveBack(std::int64_t bytes) noexcept {
  if (bytes != 0) mTaken.fetch_sub(bytes);
  if (mWaiting.load() != 0) wake();
}

void SharedBudget::wait(const std::function<bool(bool)>& done) {
  const MutexLock lock(mMutex);
  const std::uint64_t turn = mNextTurn++;
  mTurns.insert(turn);
  mWaiting.fetch_add(1);
  while (!done(*mTurns.begin() == turn)) mChanged.wait(mMutex);
  mWaiting.fetch_sub(1);
  mTurns.erase(turn);
  mChanged.notifyAll();  // the next one's turn
}

void SharedBudget::wake() noexcept {
  const MutexLock lock(mMutex);
  mChanged.notifyAll();
}

}  // namespace zor::host
