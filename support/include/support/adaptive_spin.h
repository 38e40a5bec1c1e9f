// Adaptive spinning (busy polling) before a thread blocks.
#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace zor {

/// A peer that waits for each answer sends its next request right behind it. Blocking and
/// being woken would then take longer, and often more processor time, than spinning for a
/// moment. Where spinning does not pay, because the peer or the machine has other things
/// to do, it is only tried from time to time.
///
/// Spinning does not pay either when something is ready at once: more is on its way then,
/// and a thread that blocks meanwhile finds all of it together.
///
/// One thread.
class AdaptiveSpin {
 public:
  /// `budget` is the longest time of one spin.
  explicit constexpr AdaptiveSpin(std::chrono::microseconds budget) noexcept : mBudget(budget) {}

  /// Polls `ready` until it is true or the budget is used up, and yields in between.
  /// Returns the last result of `ready`.
  template <class Ready>
  bool spinUntil(Ready ready) {
    if (mScore < 0) {
      ++mScore;
      return ready();
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point begin = Clock::now();
    Clock::duration passed{};
    bool is = ready();
    while (!is && passed < mBudget) {
      std::this_thread::yield();
      is = ready();
      passed = Clock::now() - begin;
    }
    if (passed > kAtOnce && passed < mBudget) {
      mScore = std::min(mScore + 1, kMaxScore);
    } else if ((mScore -= kMaxScore / 2) < 0) {
      mScore = -kMaxScore;
    }
    return is;
  }

 private:
  static constexpr int kMaxScore = 16;

  const std::chrono::microseconds mBudget;
  // No answer and next request go through two processes in so little time.
  static constexpr auto kAtOnce = std::chrono::microseconds(8);

  int mScore = 0;  ///< how well spinning paid; below 0: spins that are left out
};

}  // namespace zor
