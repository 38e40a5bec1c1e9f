// Bounding what is in flight.
#pragma once

#include <cstdint>

namespace zor::client::cli {

/// Counts requests and the bytes that they move. A request beyond the limits
/// fits only when nothing else is in flight.
class Window {
 public:
  static constexpr std::uint64_t kMaxBytes = std::uint64_t{8} << 20;
  static constexpr unsigned kMaxRequests = 256;

  bool fits(std::uint64_t bytes) const noexcept {
    return mRequests == 0 || (mRequests < kMaxRequests && mBytes + bytes <= kMaxBytes);
  }
  bool empty() const noexcept { return mRequests == 0; }
  void enter(std::uint64_t bytes) noexcept {
    ++mRequests;
    mBytes += bytes;
  }
  void leave(std::uint64_t bytes) noexcept {
    --mRequests;
    mBytes -= bytes;
  }

 private:
  std::uint64_t mBytes = 0;
  unsigned mRequests = 0;
};

}  // namespace zor::client::cli
