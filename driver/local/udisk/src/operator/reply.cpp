#include "reply.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace zor {

ReplyBuilder::ReplyBuilder(const HandlerCall& request, std::uint64_t payloadSize) noexcept
    : mPacket(new (std::nothrow) ZorPacket(request.headerLength + payloadSize)) {
  if (mPacket && !mPacket->mBuffer) mPacket.reset();
  if (mPacket) {
    const ZorPacket& packet = request.packet;
    mPacket->SetHeader(packet.GetDevId(), packet.GetCmd(), packet.GetRequestId());
  }
}

ReplyBuilder& ReplyBuilder::add(wire::Bytes bytes) noexcept {
  if (bytes.empty()) return *this;
  if (std::byte* at = room(bytes.size())) {
    std::memcpy(at, bytes.data(), bytes.size());
    commit(bytes.size());
  }
  return *this;
}

ReplyBuilder& ReplyBuilder::add(std::string_view bytes) noexcept {
  return add(wire::Bytes(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size()));
}

ReplyBuilder& ReplyBuilder::addText(const PeerString& string) noexcept {
  if (std::byte* at = room(string.received.size())) {
    const std::size_t length = string.text.size();
    if (length > 0) std::memcpy(at, string.text.data(), length);
    std::memset(at + length, 0, string.received.size() - length);
    commit(string.received.size());
  }
  return *this;
}

std::byte* ReplyBuilder::room(std::size_t size) noexcept {
  if (!mPacket) return nullptr;
  PacketBuffer& buffer = *mPacket->mBuffer;
  const std::uint64_t length = mPacket->GetLength();
  if (size > std::numeric_limits<std::uint32_t>::max() - length) {
    mPacket.reset();
    return nullptr;
  }
  if (size > buffer.capacity - length) {
    const std::uint64_t grown = std::max(length + size, buffer.capacity + buffer.capacity / 2);
    void* memory = std::realloc(buffer.data, grown);
    if (memory == nullptr) {
      mPacket.reset();
      return nullptr;
    }
    buffer.data = static_cast<std::uint8_t*>(memory);
    buffer.capacity = grown;
    mPacket->mHeader = reinterpret_cast<PacketHeader*>(buffer.data);
  }
  return data() + length;
}

void ReplyBuilder::commit(std::size_t size) noexcept {
  mPacket->mHeader->length += static_cast<std::uint32_t>(size);
}

}  // namespace zor
