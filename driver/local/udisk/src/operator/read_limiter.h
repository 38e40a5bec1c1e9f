// Throttling of reads: the arithmetic of the rate limiter, free of clocks and sleeping.
//
// Reads are counted in short periods. A read that fills its period's budget
// waits until the period is over; what the wait took too long shortens the next.
#pragma once

#include <cstdint>

namespace zor {

/// A bandwidth announced this long ago (in ms) or longer no longer counts.
inline constexpr std::int64_t kBandwidthLifetimeMs = 5001;
/// Announcements from 1 to this value (kilobits per second) count as this value.
inline constexpr std::uint32_t kMinBandwidth = 1000;

struct RatePeriod {
  std::int64_t lengthMs;
  std::uint32_t budget;  ///< bytes that the bandwidth allows in one period
};

/// `bandwidth` is in kilobits of 1024 bits per second, and not 0.
RatePeriod ratePeriod(std::uint32_t bandwidth) noexcept;

/// How long a read has to wait when the window holds `windowBytes` with it.
std::int64_t ratePause(const RatePeriod& period, std::uint32_t windowBytes,
                       std::int64_t overrunMs) noexcept;

/// By how much a limiting step that took `elapsedMs` overran its period.
std::int64_t rateOverrun(const RatePeriod& period, std::int64_t elapsedMs) noexcept;

}  // namespace zor
