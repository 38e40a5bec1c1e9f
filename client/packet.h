// The cutting of a byte stream into packets.
#pragma once

#include <sys/uio.h>

#include <array>
#include <cstdint>
#include <functional>
#include <span>

#include "client/buffer.h"
#include "client/result.h"
#include "protocol/packet_header.h"

namespace zor::client {

inline constexpr std::uint32_t kMaxIncomingLength = 1U << 30;

/// Cuts a stream into packets. A payload's memory grows with the bytes that
/// have arrived, so a header that announces much costs nothing by itself.
class PacketReader {
 public:
  using Sink = std::function<void(const PacketHeader&, Buffer payload)>;

  /// Where the next bytes of the stream belong; valid until `consume`. Throws
  /// std::bad_alloc.
  std::span<const iovec> room();

  /// `count` bytes were put there, in order. Hands each packet that is now
  /// complete to `sink`. An error means that the stream is not a sequence of
  /// packets and must not be read further.
  Status consume(std::size_t count, const Sink& sink);

  /// The header of the packet of which only a part has arrived; null between packets.
  const PacketHeader* partial() const noexcept { return mInPayload ? &mHeader : nullptr; }

  /// How many bytes of its payload have arrived.
  std::size_t arrived() const noexcept { return mHave; }

  /// Keeps nothing of that packet's payload, neither what has arrived nor the rest; the
  /// sink gets it empty. REQUIRES: partial().
  void drop() noexcept;

 private:
  Status parse(const Sink& sink);
  void finish(const Sink& sink);

  PacketHeader mHeader{};  ///< of the packet whose payload is being read
  bool mInPayload = false;
  bool mDropping = false;
  Buffer mPayload;              ///< sized to the room made so far
  std::size_t mHave = 0;        ///< payload bytes that have arrived
  std::size_t mWanted = 0;      ///< payload bytes in all
  std::size_t mInputStart = 0;  ///< bytes of mInput that are used up
  std::size_t mInputEnd = 0;
  std::array<iovec, 2> mRoom{};
  std::array<std::byte, std::size_t{64} << 10> mInput;
};

}  // namespace zor::client
