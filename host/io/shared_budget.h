// The memory that all clients share.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>

#include "support/mutex.h"

namespace zor::host {

/// Counts what the clients hold beyond a share that each has for itself. Whoever
/// wants more than there is waits; those who wait are served in the order in which
/// they came, so that many small packets do not keep a large one out. Any thread.
class SharedBudget {
 public:
  /// Enough for the largest packet and its reply, beside one client's share.
  static constexpr std::size_t kDefaultLimit = std::size_t{129} << 20;

  explicit SharedBudget(std::size_t limit = kDefaultLimit) noexcept
      : mLimit(static_cast<std::int64_t>(limit)) {}

  /// Takes `bytes`. False, and nothing taken, when there is not so much, or when somebody
  /// waits and it is not the caller's turn. More than the limit is to be had when nothing is
  /// taken.
  bool take(std::int64_t bytes, bool inTurn = false) noexcept;

  /// Takes `bytes` (or gives them back, when negative) whatever the limit, and wakes nobody.
  void correct(std::int64_t bytes) noexcept { mTaken.fetch_add(bytes); }

  void giveBack(std::int64_t bytes) noexcept;

  /// Waits until `done` is true. It is asked again after each giving back and each `wake`, with
  /// whether it is the caller's turn to `take`, and must not call `giveBack` nor `wake`.
  void wait(const std::function<bool(bool inTurn)>& done);
  void wake() noexcept;

  /// How many threads wait.
  std::size_t waiting() const noexcept { return mWaiting.load(); }

 private:
  const std::int64_t mLimit;
  std::atomic<std::int64_t> mTaken{0};
  std::atomic<std::size_t> mWaiting{0};
  Mutex mMutex;
  Condition mChanged;
  std::set<std::uint64_t> mTurns GUARDED_BY(mMutex);  ///< of those who wait
  std::uint64_t mNextTurn GUARDED_BY(mMutex) = 0;
};

}  // namespace zor::host
