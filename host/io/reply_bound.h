// How much memory the reply to a request may take.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "zor_packet.h"

namespace zor::host {

/// A request of a read that is not longer than this is parsed whole.
inline constexpr std::uint32_t kExaminedRequest = std::uint32_t{128} << 10;

/// The most that the reply to a request may hold beside small change, in bytes; nothing
/// when that needs more of the request than `arrived`, its first bytes (header included).
/// `header` is in the host's byte order. Listings are not known beforehand.
std::optional<std::size_t> replyBound(const PacketHeader& header,
                                      std::span<const std::uint8_t> arrived) noexcept;

}  // namespace zor::host
