#include "drive/data/read_window.h"

#include <algorithm>
#include <bit>

namespace zor::client {

namespace {

using namespace std::chrono_literals;

constexpr double kChunkSeconds = 0.1;  ///< a queue of two is still short then
constexpr double kBatchSeconds = 0.2;
constexpr std::uint32_t kUnknownRateBatch = 256U << 10;
constexpr std::uint32_t kMinMeasured = 32U
                                       << 10;  ///< smaller reads measure the delay, not the rate
constexpr auto kPeriod = 5s;
constexpr auto kHarmlessQueue = 5ms;

double inSeconds(ReadWindow::Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

std::uint32_t ReadWindow::chunkSize() const {
  const MutexLock lock(mMutex);
  return mChunk;
}

std::uint32_t ReadWindow::batchSize() const {
  const MutexLock lock(mMutex);
  if (mRateBytes <= 0) return kUnknownRateBatch;
  const double fitting = mRateBytes * kBatchSeconds / std::max(mRateSeconds, 1e-9);
  return static_cast<std::uint32_t>(std::clamp<double>(fitting, kMinChunk, kMaxBatch));
}

std::uint64_t ReadWindow::inFlight() const {
  const MutexLock lock(mMutex);
  return mInFlight;
}

std::uint64_t ReadWindow::size() const {
  const MutexLock lock(mMutex);
  return static_cast<std::uint64_t>(mWindow);
}

ReadWindow::Ticket ReadWindow::beginLocked(std::uint32_t bytes, Time now) {
  const Ticket ticket{bytes, now, mInFlight == 0, false};
  mInFlight += bytes;
  return ticket;
}

ReadWindow::Ticket ReadWindow::begin(std::uint32_t bytes, Time now) {
  const MutexLock lock(mMutex);
  return beginLocked(bytes, now);
}

std::optional<ReadWindow::Ticket> ReadWindow::tryBegin(std::uint32_t bytes, Time now) {
  const MutexLock lock(mMutex);
  if (mDraining && now - mDrainUntil >= Duration::zero()) mDraining = false;
  if (mInFlight != 0) {
    if (mDraining) return std::nullopt;
    if (static_cast<double>(mInFlight + bytes) > mWindow) {
      mWanted = true;
      return std::nullopt;
    }
  }
  Ticket ticket = beginLocked(bytes, now);
  // The tail of a file behind large chunks would look as if it had been delayed.
  ticket.paces = bytes > mChunk / 2;
  return ticket;
}

void ReadWindow::finished(const Ticket& ticket, std::uint64_t received, Time now) {
  const MutexLock lock(mMutex);
  mInFlight -= ticket.bytes;
  if (ticket.alone) mDraining = false;
  if (received >= ticket.bytes / 2) {
    const Duration latency = std::max<Duration>(now - ticket.begun, 1us);
    age(now);
    mAnyLatency.add(latency);
    measureRate(ticket, latency, now);
    if (ticket.paces) pace(ticket, latency, now);
  }
  mLastFinish = now;
}

void ReadWindow::age(Time now) {
  if (now - mPeriodStart < kPeriod) return;
  const bool idle = now - mPeriodStart >= 2 * kPeriod;
  for (int i = 0; i < (idle ? 2 : 1); ++i) {
    for (RecentMinimum& latency : mClassLatency) latency.age();
    mAnyLatency.age();
  }
  mPeriodStart = now;
  // A queue that never empties would come to look like the link's own delay.
  if (mWindow > mChunk) {
    mDraining = true;
    mDrainUntil = now + 1s;
  }
}

void ReadWindow::measureRate(const Ticket& ticket, Duration latency, Time now) {
  if (ticket.bytes < kMinMeasured) return;
  const double bytes = ticket.bytes;
  if (ticket.begun - mLastFinish < Duration::zero()) {
    addRate(bytes, inSeconds(now - mLastFinish));
  } else if (const double seconds = inSeconds(latency);
             bytes * mRateSeconds >= mRateBytes * seconds) {
    mRateBytes = bytes;  // at least this: part of the time is the link's delay
    mRateSeconds = seconds;
  } else if (latency > 2 * mAnyLatency.get()) {
    addRate(bytes, inSeconds(latency - mAnyLatency.get()));
  }
  fitChunk();
}

void ReadWindow::addRate(double bytes, double seconds) {
  constexpr double kMaxBytes = 4 << 20;
  mRateBytes += bytes;
  mRateSeconds += seconds;
  const double excess = std::max(mRateBytes / kMaxBytes, mRateSeconds);
  if (excess > 1) {
    mRateBytes /= excess;
    mRateSeconds /= excess;
  }
}

void ReadWindow::fitChunk() {
  const double fitting = mRateBytes * kChunkSeconds / std::max(mRateSeconds, 1e-9);
  while (mChunk < kMaxChunk && 2.0 * mChunk <= fitting) mChunk *= 2;
  while (mChunk > kMinChunk && mChunk > 1.25 * fitting) mChunk /= 2;
  clampWindow();
}

void ReadWindow::pace(const Ticket& ticket, Duration latency, Time now) {
  RecentMinimum& lately = mClassLatency[static_cast<std::size_t>(std::bit_width(ticket.bytes - 1))];
  const bool comparable = lately.get() != Duration::max();
  lately.add(latency);
  const Duration least = lately.get();
  if (latency > std::max<Duration>(least + least / 2, least + kHarmlessQueue)) {
    mFastStart = false;
    if (ticket.begun - mLastShrink < Duration::zero()) return;
    mWindow *= std::max(0.5, 1.4 * inSeconds(least) / inSeconds(latency));
    mLastShrink = now;
    mGrowAfter = now + 20 * latency;
    mWanted = false;
  } else if (comparable && mWanted && now - mGrowAfter >= Duration::zero()) {
    mWindow += mFastStart ? ticket.bytes : ticket.bytes * (mChunk / mWindow);
    mWanted = false;
  }
  clampWindow();
}

void ReadWindow::clampWindow() {
  mWindow = std::clamp<double>(mWindow, mChunk, static_cast<double>(mChunk) * kMaxChunksInFlight);
}

}  // namespace zor::client
