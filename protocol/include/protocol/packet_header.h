// The header at offset 0 of every packet, in both directions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "protocol/codec.h"

namespace zor {

/// Multi-byte fields are little-endian on the wire unless `netOrder` is non-zero.
struct PacketHeader {
  std::uint8_t magic;       ///< always kPacketMagic
  std::uint8_t devId;       ///< the device that the packet belongs to
  std::uint16_t cmd;        ///< command code
  std::uint32_t requestId;  ///< a reply carries the value of its request
  std::uint32_t length;     ///< bytes of the whole packet, header included
  std::uint8_t netOrder;    ///< non-zero: the sender wrote cmd, requestId and length big-endian
  std::array<std::uint8_t, 3> reserved;
  static constexpr auto kFields = std::tuple(
      &PacketHeader::magic, &PacketHeader::devId, &PacketHeader::cmd, &PacketHeader::requestId,
      &PacketHeader::length, &PacketHeader::netOrder, &PacketHeader::reserved);

  /// Converts what a big-endian sender wrote; `netOrder` keeps its value. Once for each header.
  void toHostOrder() noexcept {
    if (netOrder == 0) return;
    cmd = __builtin_bswap16(cmd);
    requestId = __builtin_bswap32(requestId);
    length = __builtin_bswap32(length);
  }
};
static_assert(sizeof(PacketHeader) == 16 && wire::wireSize<PacketHeader>() == 16);

inline constexpr std::uint8_t kPacketMagic = 0x27;
inline constexpr std::size_t kPacketHeaderSize = sizeof(PacketHeader);

}  // namespace zor
