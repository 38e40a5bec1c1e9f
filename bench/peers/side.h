// The sides that are compared: each does the same works in its own way.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/codec.h"
#include "support/unique_fd.h"

namespace zor::bench {

// The served tree, as measure.py makes it.
inline constexpr unsigned kFiles = 2000;  ///< of kFileSize
inline constexpr std::uint32_t kFileSize = 4096;
inline constexpr unsigned kManyEntries = 10'000;  ///< empty files
inline constexpr std::uint64_t kBigSize = std::uint64_t{256} << 20;
inline constexpr std::string_view kFilesName = "files";
inline constexpr std::string_view kManyName = "many";
inline constexpr std::string_view kBigName = "big";
inline constexpr std::string_view kWrittenName = "written";

inline constexpr unsigned kBatchFiles = 32;
inline constexpr std::uint64_t kBatches = kFiles / kBatchFiles;
inline constexpr unsigned kBatchChunks = 256;
inline constexpr std::uint64_t kChunkDistance = 8192;  ///< they do not touch each other
inline constexpr std::uint64_t kChunks = kBigSize / kChunkDistance;
inline constexpr std::uint64_t kMiB = 1 << 20;

/// Throws std::runtime_error.
void expect(bool condition, const char* what);

inline double mebibytes(std::uint64_t count, std::uint64_t size) {
  return static_cast<double>(count * size) / static_cast<double>(kMiB);
}

/// When no further item is begun.
class Until {
 public:
  using Clock = std::chrono::steady_clock;

  static Until time(std::chrono::duration<double> duration) {
    return Until(Clock::now() + std::chrono::duration_cast<Clock::duration>(duration), 0);
  }
  static Until items(std::uint64_t count) { return Until(Clock::time_point::max(), count); }

  /// For items of which each is worth `factor`, or the `divisor`th part, of the
  /// others.
  Until scaled(std::uint64_t divisor, std::uint64_t factor = 1) const {
    return Until(mEnd, mItems / divisor * factor);
  }

  bool over(std::uint64_t begun) const {
    return mItems != 0 ? begun >= mItems : Clock::now() >= mEnd;
  }

 private:
  Until(Clock::time_point end, std::uint64_t items) : mEnd(end), mItems(items) {}

  Clock::time_point mEnd;
  std::uint64_t mItems;
};

struct Run {
  unsigned inFlight = 1;
  std::uint32_t size = 0;  ///< of a piece, in bytes
  Until until;
  bool checked = false;  ///< everything read is compared with the file on the disk
};

/// Each work goes on until it is over and nothing is in flight, and returns the units
/// done. Failures are thrown as std::exception; the object is of no use then.
class Side {
 public:
  /// Writes of the side put the MiB at `seed` of the big file into each piece, so that a
  /// check sees whose data it is.
  Side(int root, unsigned seed);
  virtual ~Side() = default;

  virtual double attributes(const Run& run) = 0;
  virtual double wholeFiles(const Run& run) = 0;
  virtual double batches(const Run& run) = 0;
  virtual double reads(const Run& run) = 0;
  virtual double writes(const Run& run) = 0;
  virtual double chunks(const Run& run) = 0;
  virtual double listings(const Run& run) = 0;
  virtual double unchanged(const Run& run) = 0;

 protected:
  /// Throws std::runtime_error when `data` is not what the file holds at `offset`.
  void expectContents(wire::Bytes data, std::string_view name, std::uint64_t offset) const;
  wire::Bytes data(std::size_t size) const { return wire::Bytes(mData).first(size); }

  const int mRoot;
  std::vector<std::string> mFiles;  ///< paths relative to the root

 private:
  std::vector<std::byte> mData;
};

/// The host, spoken to by the bench's own client.
std::unique_ptr<Side> makeUdiskSide(int root, UniqueFd socket);
/// The peer, spoken to by the same client in the peer's language.
std::unique_ptr<Side> makeSftpSide(int root, UniqueFd socket);
/// The same system calls without a server.
std::unique_ptr<Side> makePosixSide(int root);

}  // namespace zor::bench
