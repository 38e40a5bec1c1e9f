#include "request.h"

#include <algorithm>

#include "morvel_log.h"

namespace zor {

wire::Bytes payloadOf(const ZorPacket& packet) noexcept {
  const std::uint8_t* payload = packet.GetPayload();
  if (payload == nullptr) return {};
  const std::uint64_t end = std::min<std::uint64_t>(packet.GetLength(), packet.mBuffer->capacity);
  const auto start = static_cast<std::uint64_t>(payload - packet.mBuffer->data);
  if (end <= start) return {};
  return {reinterpret_cast<const std::byte*>(payload), static_cast<std::size_t>(end - start)};
}

void reportMalformed(const ZorPacket& packet) noexcept {
  MORVEL_ERROR("malformed request, cmd: %d, length: %u, bytes held: %llu", packet.GetCmd(),
               packet.GetLength(),
               packet.mBuffer ? static_cast<unsigned long long>(packet.mBuffer->capacity) : 0ULL);
}

}  // namespace zor
