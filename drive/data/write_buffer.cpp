#include "drive/data/write_buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zor::client {

namespace {

constexpr std::size_t kFirstRoom = std::size_t{16} << 10;
constexpr std::size_t kMaxPieces = 4096;
/// Pieces from this size on gain nothing from sharing a request with others,
/// and a batch would copy them once more.
constexpr std::size_t kLargePiece = std::size_t{64} << 10;

}  // namespace

void WriteBuffer::add(std::int64_t offset, wire::Bytes data) {
  const std::size_t size = data.size();
  if (mData.size() - mUsed < size) {
    mData.resize(std::max({kFirstRoom, mData.size() * 2, mUsed + size}));
  }
  if (!mPieces.empty() &&
      mPieces.back().offset + static_cast<std::int64_t>(mPieces.back().size) == offset) {
    mPieces.back().size += size;
  } else {
    mPieces.push_back({offset, size});
  }
  std::memcpy(mData.data() + mUsed, data.data(), size);
  mUsed += size;
}

void WriteBuffer::clear() {
  mPieces.clear();
  mData = Buffer();
  mUsed = 0;
}

std::uint64_t WriteBuffer::end() const noexcept {
  std::uint64_t end = 0;
  for (const Piece& piece : mPieces) {
    end = std::max(end, static_cast<std::uint64_t>(piece.offset) + piece.size);
  }
  return end;
}

bool WriteBuffer::accepts(std::int64_t offset, std::size_t size, std::size_t limit) const noexcept {
  if (mPieces.empty()) return true;
  if (size > limit - std::min(limit, mUsed)) return false;
  const Piece& last = mPieces.back();
  if (last.offset + static_cast<std::int64_t>(last.size) == offset) {
    return mPieces.size() == 1 || size < kLargePiece;
  }
  return mPieces.size() < kMaxPieces && size < kLargePiece && mPieces.front().size < kLargePiece;
}

void WriteBuffer::submit(DiskRequests& disk, const PathLease& at, Callback<Unit> done) {
  const std::vector<Piece> pieces = std::exchange(mPieces, {});
  Buffer data = std::exchange(mData, Buffer());
  data.resize(std::exchange(mUsed, 0));
  if (pieces.size() == 1) {
    return disk.write(at, pieces.front().offset, std::move(data), std::move(done));
  }
  std::vector<WritePiece> parts;
  parts.reserve(pieces.size());
  std::size_t begin = 0;
  for (const Piece& piece : pieces) {
    parts.push_back({piece.offset, data.bytes().subspan(begin, piece.size)});
    begin += piece.size;
  }
  disk.writeBatch(at, parts, std::move(done));
}

}  // namespace zor::client
