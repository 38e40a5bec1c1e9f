#include "zor_packet.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace zor {
namespace {

constexpr std::uint64_t kGrowthStep = std::uint64_t{128} << 10;

// Takes ownership of `data`, also when there is no memory for the buffer.
std::unique_ptr<PacketBuffer> adopt(std::uint8_t* data, std::uint64_t capacity) noexcept {
  if (data == nullptr) return nullptr;
  std::unique_ptr<PacketBuffer> buffer(new (std::nothrow) PacketBuffer(data, capacity));
  if (!buffer) std::free(data);
  return buffer;
}

std::uint8_t* allocate(std::size_t size) noexcept {
  return static_cast<std::uint8_t*>(std::malloc(size));
}

}  // namespace

ZorPacket::ZorPacket(std::size_t capacity) noexcept {
  const std::size_t size = std::max(capacity, kPacketHeaderSize);
  mBuffer = adopt(allocate(size), size);
  if (!mBuffer) return;
  mHeader = reinterpret_cast<PacketHeader*>(mBuffer->data);
  *mHeader = PacketHeader{};
  mHeader->magic = kPacketMagic;
  mHeader->length = kPacketHeaderSize;
  mHeaderReady = true;
}

void ZorPacket::SetHeader(std::uint8_t devId, std::uint16_t cmd, std::uint32_t requestId) noexcept {
  if (!mBuffer) return;
  mHeader->magic = kPacketMagic;
  mHeader->netOrder = 0;
  mHeader->devId = devId;
  mHeader->requestId = requestId;
  mHeader->cmd = cmd;
  mHeaderReady = true;
}

int ZorPacket::AppendPayload(const void* data, std::uint32_t len) noexcept {
  if (!mBuffer) return -1;
  if (!mHeaderReady) {
    std::puts("please init header first");
    return -1;
  }
  if (len > mBuffer->capacity - kPacketHeaderSize) {
    std::puts("payload size larger than packet size");
    return -1;
  }
  const std::uint64_t end = std::uint64_t{mHeader->length} + len;
  if (end > std::numeric_limits<std::uint32_t>::max()) return -1;
  if (end > mBuffer->capacity) {
    const std::uint64_t capacity = std::max(mBuffer->capacity + kGrowthStep, end);
    void* grown = std::realloc(mBuffer->data, capacity);
    if (grown == nullptr) return -1;
    mBuffer->data = static_cast<std::uint8_t*>(grown);
    mBuffer->capacity = capacity;
    mHeader = reinterpret_cast<PacketHeader*>(mBuffer->data);
  }
  if (len > 0) std::memcpy(mBuffer->data + mHeader->length, data, len);
  mHeader->length = static_cast<std::uint32_t>(end);
  return 0;
}

int ZorPacket::FromBuffer(std::uint8_t* buf, std::uint32_t len, bool copy) noexcept {
  if (len < kPacketHeaderSize) {
    std::puts("len is less than header");
    return -1;
  }
  if (buf[0] != kPacketMagic) {
    std::printf("error buffer format,magic[0x%x 0x%x]\n", buf[0], buf[1]);
    return -1;
  }
  std::uint8_t* data = buf;
  if (copy) {
    data = allocate(len);
    if (data == nullptr) return -1;
    std::memcpy(data, buf, len);
  }
  // Only a buffer that is really there may take over `buf`: on failure it
  // stays the caller's.
  std::unique_ptr<PacketBuffer> buffer(new (std::nothrow) PacketBuffer(data, len));
  if (!buffer) {
    if (copy) std::free(data);
    return -1;
  }
  mBuffer = std::move(buffer);
  mHeader = reinterpret_cast<PacketHeader*>(data);
  mHeaderReady = true;
  mReadPos = 0;
  mHeader->toHostOrder();
  return 0;
}

std::unique_ptr<ZorPacket> ZorPacket::Clone() const noexcept {
  const std::uint32_t length = GetLength();
  if (!mBuffer || length > mBuffer->capacity) return nullptr;
  std::unique_ptr<ZorPacket> clone(new (std::nothrow) ZorPacket(0));
  std::uint8_t* copy = allocate(length);
  if (!clone || copy == nullptr) {
    std::free(copy);
    return nullptr;
  }
  std::memcpy(copy, mBuffer->data, length);
  if (clone->FromBuffer(copy, length, false) != 0) {
    std::free(copy);
    return nullptr;
  }
  return clone;
}

int ZorPacket::ReadUint32(std::uint32_t* out) noexcept {
  if (!mBuffer) return -1;
  const std::uint64_t position = static_cast<std::uint32_t>(mReadPos);
  if (position + sizeof *out > mBuffer->capacity - kPacketHeaderSize) return -1;
  std::uint32_t value = 0;
  std::memcpy(&value, mBuffer->data + kPacketHeaderSize + position, sizeof value);
  mReadPos += static_cast<std::int32_t>(sizeof value);
  *out = mHeader->netOrder != 0 ? __builtin_bswap32(value) : value;
  return 0;
}

std::uint8_t* ZorPacket::GetPayload() const noexcept {
  if (!mBuffer || mBuffer->data == nullptr) return nullptr;
  const std::uint64_t start = kPacketHeaderSize + static_cast<std::uint32_t>(mReadPos);
  return mBuffer->capacity < start ? nullptr : mBuffer->data + start;
}

}  // namespace zor
