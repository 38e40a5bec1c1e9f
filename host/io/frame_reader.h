// Cutting packets out of a byte stream.
#pragma once

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "host/io/receive_budget.h"
#include "zor_packet.h"

namespace zor::host {

/// Turns the bytes of a stream into packets, without knowing where they come
/// from: fill `space`, call `commit` with the number of bytes, and call `next` until
/// it has nothing more to give.
///
/// Each byte is copied at most once: a fixed buffer takes in many small packets
/// at a time, and most of a large one goes straight to its place. One thread at a
/// time. The packets may live on any thread, but not longer than the budget.
class FrameReader {
 public:
  enum class Status {
    kPacket,     ///< a packet was given out
    kMore,       ///< more bytes are needed
    kBadMagic,   ///< the stream is not made of packets; see `header`
    kBadLength,  ///< a length below the header's size or above the maximum
    kNoMemory,
    kNoRoom,   ///< in the budget, non-blocking
    kStopped,  ///< the budget was stopped
  };

  explicit FrameReader(ReceiveBudget& budget);

  /// Where the next received bytes belong, in this order; never empty. To be
  /// called when `next` said kMore.
  std::span<iovec> space() noexcept;

  /// The first `count` bytes of `space` are filled.
  void commit(std::size_t count) noexcept;

  /// The next packet, its header in the host's byte order. Waits for the budget
  /// when blocking. After anything but kPacket, kMore and kNoRoom the stream is at
  /// its end, which the next call reports again.
  Status next(std::unique_ptr<ZorPacket>& packet, Waiting waiting = Waiting::kBlocking);

  /// The header that was read last, in the host's byte order.
  const PacketHeader& header() const noexcept { return mHeader; }

  /// Whether the stream would end inside a packet if it ended here.
  bool insidePacket() const noexcept { return mPending != nullptr || mBegin != mEnd; }

 private:
  Status begin(Waiting waiting);
  std::size_t window() const noexcept;

  ReceiveBudget& mBudget;
  std::unique_ptr<std::uint8_t[]> mBuffer;
  std::size_t mBegin = 0;  ///< the bytes that are still to be cut
  std::size_t mEnd = 0;
  std::unique_ptr<ZorPacket> mPending;  ///< a packet that has begun
  std::size_t mFilled = 0;              ///< how many of its bytes are there
  bool mExamining = false;              ///< a request has to be there whole before it begins
  PacketHeader mHeader{};
  std::array<iovec, 2> mSpace{};
};

}  // namespace zor::host
