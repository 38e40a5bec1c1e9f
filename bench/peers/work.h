// What is measured.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace zor::bench {

enum class Work {
  kAttributes,
  kWholeFile,
  kFileBatch,
  kRead,
  kWrite,
  kWriteChunks,
  kListing,
  kUnchanged,
};

struct WorkTraits {
  std::string_view key;  ///< in the results
  Work work;
  std::string_view unit;  ///< what rates and processor times are counted in
  unsigned inFlight = 1;
  std::uint32_t size = 0;        ///< of a piece, in bytes
  std::uint64_t checkItems = 1;  ///< until everything was touched once
};

inline constexpr unsigned kFiles = 2000;  ///< of kFileSize
inline constexpr std::uint32_t kFileSize = 4096;
inline constexpr unsigned kBatchFiles = 32;
inline constexpr unsigned kManyEntries = 10'000;  ///< empty files
inline constexpr std::uint64_t kBigSize = std::uint64_t{256} << 20;
inline constexpr unsigned kBatchChunks = 256;
inline constexpr std::uint32_t kChunkSize = 4096;
inline constexpr std::uint64_t kChunkDistance = 8192;  ///< they do not touch each other

inline constexpr std::uint64_t kMiB = 1 << 20;
inline constexpr std::uint64_t kChunks = kBigSize / kChunkDistance;
inline constexpr std::uint64_t kBatches = kFiles / kBatchFiles;

inline constexpr std::array kWorks{
    WorkTraits{"attributes-1", Work::kAttributes, "query", 1, 0, kFiles},
    WorkTraits{"attributes-32", Work::kAttributes, "query", 32, 0, kFiles},
    WorkTraits{"file-1", Work::kWholeFile, "file", 1, kFileSize, kFiles},
    WorkTraits{"file-32", Work::kWholeFile, "file", 32, kFileSize, kFiles},
    WorkTraits{"batch-1", Work::kFileBatch, "file", 1, kFileSize, kFiles},
    WorkTraits{"batch-4", Work::kFileBatch, "file", 4, kFileSize, kFiles},
    WorkTraits{"read-64k", Work::kRead, "MiB", 8, 64 << 10, kBigSize >> 16},
    WorkTraits{"read-1m", Work::kRead, "MiB", 4, 1 << 20, kBigSize >> 20},
    WorkTraits{"write-64k", Work::kWrite, "MiB", 8, 64 << 10, kBigSize >> 16},
    WorkTraits{"write-chunks", Work::kWriteChunks, "MiB", 1, kChunkSize, kChunks},
    WorkTraits{"listing", Work::kListing, "listing", 1, 0, 1},
    WorkTraits{"unchanged", Work::kUnchanged, "check", 1, 0, 1},
};

}  // namespace zor::bench
