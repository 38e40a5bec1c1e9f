// Written data of one file on its way to the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "client/buffer.h"
#include "client/disk.h"

namespace zor::client {

/// Gathers writes, in order, until they are worth a request. Not thread-safe.
class WriteGather {
 public:
  /// Where `size` bytes at `offset` of the file are to be put; they count as
  /// written. Throws std::bad_alloc.
  std::byte* add(std::int64_t offset, std::size_t size);

  bool empty() const noexcept { return mPieces.empty(); }
  std::size_t size() const noexcept { return mUsed; }
  /// How far into the file it reaches.
  std::uint64_t end() const noexcept;

  /// Whether another `size` bytes at `offset` can join without making a batch
  /// of large pieces or one beyond `limit` bytes.
  bool accepts(std::int64_t offset, std::size_t size, std::size_t limit) const noexcept;

  /// Starts writing all of it into `path` with one request.
  void submit(Disk& disk, const std::string& path, Callback<Unit> done);

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
