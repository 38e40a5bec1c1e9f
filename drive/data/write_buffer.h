// The dirty ranges of one file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "client/buffer.h"
#include "drive/requests/disk_requests.h"

namespace zor::client {

/// Collects writes, in order, until they are worth a request. Not thread-safe.
class WriteBuffer {
 public:
  /// Throws std::bad_alloc, and is unchanged then.
  void add(std::int64_t offset, wire::Bytes data);

  bool empty() const noexcept { return mPieces.empty(); }
  std::size_t size() const noexcept { return mUsed; }
  /// How far into the file it reaches.
  std::uint64_t end() const noexcept;

  /// Whether another `size` bytes at `offset` can join without making a batch
  /// of large pieces or one beyond `limit` bytes.
  bool accepts(std::int64_t offset, std::size_t size, std::size_t limit) const noexcept;

  /// Starts writing all of it with one request, and is empty then.
  void submit(DiskRequests& disk, const PathLease& at, Callback<Unit> done);
  void clear();

 private:
  struct Piece {
    std::int64_t offset;
    std::size_t size;
  };

  std::vector<Piece> mPieces;
  Buffer mData;           ///< room; the pieces' bytes one after another in its beginning
  std::size_t mUsed = 0;  ///< bytes
};

}  // namespace zor::client
