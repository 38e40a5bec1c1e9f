// What reading in advance was good for.
#pragma once

#include <atomic>
#include <cstdint>

namespace zor::client {

/// Only ever grow. Read and written from any thread, each by itself.
struct ReadCounters {
  std::atomic<std::uint64_t> readAheadHits{0};     ///< bytes given to programs from read-ahead
  std::atomic<std::uint64_t> readAheadWasted{0};   ///< bytes asked for and dropped unused
  std::atomic<std::uint64_t> smallFileHits{0};     ///< files given to programs from a batch
  std::atomic<std::uint64_t> smallFileBatches{0};  ///< batches asked for
  std::atomic<std::uint64_t> smallFilesWasted{0};  ///< files in batches, dropped unused

  static void add(std::atomic<std::uint64_t>& counter, std::uint64_t count) noexcept {
    counter.fetch_add(count, std::memory_order_relaxed);
  }
};

}  // namespace zor::client
