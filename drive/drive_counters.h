// What the drive counts beside the requests, which the link counts.
#pragma once

#include <cstdint>

namespace zor::client {

struct DriveCounters {
  std::uint64_t cacheHits = 0;    ///< lookups and attributes answered without the host
  std::uint64_t cacheMisses = 0;  ///< those that needed a request
  std::uint64_t knownNames = 0;   ///< names and files that memory is used for
  std::uint64_t dirChecks = 0;    ///< directories that were found unchanged or changed
  std::uint64_t dirUnchanged = 0;
  std::uint64_t bytesRead = 0;  ///< by programs, from the drive (not from the kernel's cache)
  std::uint64_t bytesWritten = 0;
  std::uint64_t pendingBytes = 0;  ///< written, not yet acknowledged by the host
  std::uint64_t pendingFiles = 0;  ///< with such bytes
  std::uint64_t failedWrites = 0;
  std::uint64_t smallFileHits = 0;  ///< files that came out of a batch
  std::uint64_t smallFileBatches = 0;
  std::uint64_t smallFilesWasted = 0;  ///< fetched in a batch and never read
  std::uint64_t readAheadBytes = 0;    ///< given to programs from what was read ahead
  std::uint64_t readAheadWasted = 0;   ///< bytes read ahead and dropped unused
};

}  // namespace zor::client
