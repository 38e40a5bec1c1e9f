// Shared by the workers of a soak: its clock, its disk, and differences.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <random>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "support/mutex.h"

namespace zor::soak {

/// What was found is not what must be; the first one ends the soak.
struct Difference : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The steps that led to the present. Any thread.
class Journal {
 public:
  void add(std::string step) {
    const MutexLock lock(mMutex);
    mSteps.push_back(std::to_string(++mCount) + ". " + std::move(step));
    if (mSteps.size() > kMaxSteps) mSteps.pop_front();
  }
  /// The last ones.
  std::string text(std::size_t count = kMaxSteps) const {
    const MutexLock lock(mMutex);
    std::string all;
    for (std::size_t i = mSteps.size() - std::min(mSteps.size(), count); i < mSteps.size(); ++i) {
      all += "  " + mSteps[i] + "\n";
    }
    return all;
  }
  std::uint64_t count() const {
    const MutexLock lock(mMutex);
    return mCount;
  }

 private:
  static constexpr std::size_t kMaxSteps = 20000;

  mutable Mutex mMutex;
  std::deque<std::string> mSteps GUARDED_BY(mMutex);
  std::uint64_t mCount GUARDED_BY(mMutex) = 0;
};

/// One worker's dice: the same steps for the same seed, whatever others do.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : mEngine(seed) {}
  /// 0 to `sides` - 1.
  std::uint64_t roll(std::uint64_t sides) { return mEngine() % sides; }
  std::string bytes(std::size_t size) {
    std::string text(size, '\0');
    for (char& c : text) c = static_cast<char>(mEngine());
    return text;
  }

 private:
  std::mt19937_64 mEngine;
};

/// Whether the disk takes everything, and for how long that holds. A fault of
/// the disk makes operations fail rightly; a fault of the link must not.
class DiskState {
 public:
  /// To be taken before an operation and given to `heldSince` after it.
  std::uint64_t mark() const noexcept { return mChanges.load(); }
  /// Whether the disk took everything all the time since `mark`.
  bool heldSince(std::uint64_t mark) const noexcept {
    return mark % 2 == 0 && mChanges.load() == mark;
  }
  void change() noexcept { mChanges.fetch_add(1); }
  bool faulty() const noexcept { return mark() % 2 != 0; }

  /// Whether a program was told that data was lost.
  std::atomic<bool> lost{false};

  /// Held shared by programs that cannot go on after a failure, and alone for a
  /// fault of the disk.
  std::shared_mutex programs;

 private:
  std::atomic<std::uint64_t> mChanges{0};
};

/// Set once, when the time is over or a difference was found.
struct Ending {
  std::atomic<bool> now{false};
};

/// Sleeps, but not beyond the end. False when it has come.
inline bool pauseFor(const Ending& ending, std::chrono::milliseconds time) {
  const auto until = std::chrono::steady_clock::now() + time;
  while (!ending.now && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return !ending.now;
}

}  // namespace zor::soak
