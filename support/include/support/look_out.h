// Waiting for a moment before sleeping.
#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace zor {

/// Whoever waits for each answer sends the next request right behind it: going
/// to sleep and being woken would take longer, and often more processor time,
/// than a short look-out. Where that is in vain, because the other side or the
/// machine has other things to do, it is only tried from time to time.
///
/// It does not pay either when something is there at once: then more is on its
/// way, and who sleeps meanwhile finds it together and can treat it together.
///
/// One thread.
class LookOut {
 public:
  explicit constexpr LookOut(std::chrono::microseconds moment) noexcept : mMoment(moment) {}

  /// Calls `ready` until it is true, for a moment at most, and lets others run
  /// in between. Whether it was true.
  template <class Ready>
  bool until(Ready ready) {
    if (mTrust < 0) {
      ++mTrust;
      return ready();
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point begin = Clock::now();
    Clock::duration passed{};
    bool is = ready();
    while (!is && passed < mMoment) {
      std::this_thread::yield();
      is = ready();
      passed = Clock::now() - begin;
    }
    if (passed > kAtOnce && passed < mMoment) {
      mTrust = std::min(mTrust + 1, kMaxTrust);
    } else if ((mTrust -= kMaxTrust / 2) < 0) {
      mTrust = -kMaxTrust;
    }
    return is;
  }

 private:
  static constexpr int kMaxTrust = 16;

  const std::chrono::microseconds mMoment;
  // No answer and next request go through two processes in so little time.
  static constexpr auto kAtOnce = std::chrono::microseconds(8);

  int mTrust = 0;  ///< how well it paid; below 0: not now
};

}  // namespace zor
