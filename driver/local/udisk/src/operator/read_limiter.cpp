#include "read_limiter.h"

#include <algorithm>

namespace zor {

RatePeriod ratePeriod(std::uint32_t bandwidth) noexcept {
  constexpr std::uint32_t kLongPeriodsBelow = 10241;
  const std::uint32_t whole = bandwidth & ~std::uint32_t{7};
  if (bandwidth < kLongPeriodsBelow) return {500, whole * 64};
  return {50, whole * 128 / 20};
}

std::int64_t ratePause(const RatePeriod& period, std::uint32_t windowBytes,
                       std::int64_t overrunMs) noexcept {
  if (windowBytes < period.budget) return 0;
  return std::max<std::int64_t>(period.lengthMs - overrunMs, 0);
}

std::int64_t rateOverrun(const RatePeriod& period, std::int64_t elapsedMs) noexcept {
  return std::max<std::int64_t>(elapsedMs - period.lengthMs, 0);
}

}  // namespace zor
