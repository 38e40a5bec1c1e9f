// How much bulk reading is in flight at a time, over the whole drive.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

#include "support/mutex.h"

namespace zor::client {

/// Keeps a link full and its queue short: the host serves strictly in order, so
/// whatever is in flight delays the next query of a directory. The window grows
/// while bulk reads take about as long as the quickest ones lately, and shrinks
/// when they take longer, for then they wait for each other.
///
/// All members may be called from any thread and never block for long.
class ReadWindow {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  /// One read that is in flight.
  struct Ticket {
    std::uint32_t bytes = 0;
    Time begun{};
    bool alone = false;  ///< nothing else was in flight when it began
    bool paces = false;  ///< its latency says something about the window; may be cleared
  };

  /// What one read ahead should ask for: a power of two that takes no longer
  /// than about 100 ms, from kMinChunk to kMaxChunk bytes.
  std::uint32_t chunkSize() const;

  /// What one batch of small files should ask for in all: what takes about
  /// 200 ms, from kMinChunk to kMaxBatch bytes.
  std::uint32_t batchSize() const;

  /// For what a program waits for.
  Ticket begin(std::uint32_t bytes, Time now = Clock::now());

  /// For what nobody waits for yet: nothing when it would exceed the window.
  std::optional<Ticket> tryBegin(std::uint32_t bytes, Time now = Clock::now());

  /// Once for each ticket; `received` is 0 when there was no reply.
  void finished(const Ticket& ticket, std::uint64_t received, Time now = Clock::now());

  std::uint64_t inFlight() const;  ///< bytes
  std::uint64_t size() const;      ///< bytes

  static constexpr std::uint32_t kMinChunk = 64U << 10;
  static constexpr std::uint32_t kFirstChunk = 128U << 10;
  static constexpr std::uint32_t kMaxChunk = 1U << 20;
  static constexpr std::uint32_t kMaxBatch = 2U << 20;
  static constexpr std::uint32_t kMaxChunksInFlight = 32;

 private:
  using Duration = Clock::duration;

  /// The smallest value of the last five to ten seconds.
  struct RecentMinimum {
    Duration current = Duration::max();
    Duration previous = Duration::max();
    void add(Duration value) { current = std::min(current, value); }
    void age() {
      previous = current;
      current = Duration::max();
    }
    Duration get() const { return std::min(current, previous); }
  };

  Ticket beginLocked(std::uint32_t bytes, Time now);
  void age(Time now);
  void measureRate(const Ticket& ticket, Duration latency, Time now);
  void addRate(double bytes, double seconds);
  void fitChunk();
  void pace(const Ticket& ticket, Duration latency, Time now);
  void clampWindow();

  mutable Mutex mMutex;
  std::uint32_t mChunk = kFirstChunk;
  double mWindow = kFirstChunk;
  std::uint64_t mInFlight = 0;
  bool mWanted = false;    ///< the window was too small for somebody
  bool mFastStart = true;  ///< until the first sign of a queue
  bool mDraining = false;  ///< until a read that has the link for itself was measured
  Time mDrainUntil{};      ///< but not beyond this
  Time mLastShrink{};      ///< reads begun before it show nothing new
  Time mGrowAfter{};
  Time mLastFinish{};
  Time mPeriodStart{};
  std::array<RecentMinimum, 33> mClassLatency;  ///< by the size's bit width
  RecentMinimum mAnyLatency;
  double mRateBytes = 0;  ///< the rate is their quotient; old measurements fade
  double mRateSeconds = 0;
};

}  // namespace zor::client
