// SFTP version 3 as far as the works need it.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "framed_stream.h"

namespace zor::bench::sftp {

using wire::Bytes;

enum class Message : std::uint8_t {
  kInit = 1,
  kVersion = 2,
  kOpen = 3,
  kClose = 4,
  kRead = 5,
  kWrite = 6,
  kLstat = 7,
  kOpenDir = 11,
  kReadDir = 12,
  kStatus = 101,
  kHandle = 102,
  kData = 103,
  kName = 104,
  kAttributes = 105,
};

inline constexpr std::uint32_t kStatusOk = 0;
inline constexpr std::uint32_t kStatusEnd = 1;
inline constexpr std::uint32_t kOpenRead = 1;
inline constexpr std::uint32_t kOpenWrite = 2;
inline constexpr std::uint32_t kHasSize = 1;
inline constexpr std::uint32_t kHasOwner = 2;
inline constexpr std::uint32_t kHasPermissions = 4;
inline constexpr std::uint32_t kHasTimes = 8;

/// Numbers of the protocol, which are big-endian.
inline std::uint32_t number(Bytes bytes) {
  std::uint32_t value = 0;
  for (const std::byte byte : bytes) value = value << 8 | std::to_integer<std::uint32_t>(byte);
  return value;
}

struct SftpFormat {
  static constexpr std::size_t kHeadSize = 4;
  static constexpr std::uint32_t kLimit = 1 << 20;

  static std::size_t length(const std::byte* head) {
    const std::uint32_t length = number({head, kHeadSize});
    if (length < 5 || length > kLimit) throw std::runtime_error("the peer does not speak SFTP");
    return kHeadSize + length;
  }
  static std::uint32_t id(Bytes frame) { return number(frame.subspan(5, 4)); }
};

class Reader {
 public:
  explicit Reader(Bytes frame) : mCursor(frame) {
    mCursor.take(4);
    mType = static_cast<Message>(mCursor.take(1).front());
    mCursor.take(4);
  }
  Message type() const { return mType; }
  std::uint32_t u32() { return number(mCursor.take(4)); }
  std::uint64_t u64() {
    const std::uint64_t high = u32();
    return high << 32 | u32();
  }
  Bytes string() { return mCursor.take(u32()); }
  bool ok() const { return mCursor.ok(); }

  /// Reads attributes and returns the size.
  std::uint64_t attributes() {
    const std::uint32_t flags = u32();
    const std::uint64_t size = (flags & kHasSize) != 0 ? u64() : 0;
    mCursor.take(((flags & kHasOwner) != 0 ? 8U : 0U) + ((flags & kHasPermissions) != 0 ? 4U : 0U) +
                 ((flags & kHasTimes) != 0 ? 8U : 0U));
    return size;
  }

 private:
  wire::Cursor mCursor;
  Message mType{};
};

/// A request of known length.
class Writer {
 public:
  Writer(ByteStream& stream, Message type, std::uint32_t id, std::size_t body, std::size_t behind) {
    mAt = stream.add(9 + body);
    u32(static_cast<std::uint32_t>(5 + body + behind));
    *mAt++ = static_cast<std::byte>(type);
    u32(id);
  }
  Writer& u32(std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) *mAt++ = static_cast<std::byte>(value >> shift);
    return *this;
  }
  Writer& u64(std::uint64_t value) {
    u32(static_cast<std::uint32_t>(value >> 32));
    return u32(static_cast<std::uint32_t>(value));
  }
  Writer& string(std::string_view text) {
    u32(static_cast<std::uint32_t>(text.size()));
    std::memcpy(mAt, text.data(), text.size());
    mAt += text.size();
    return *this;
  }

 private:
  std::byte* mAt = nullptr;
};

}  // namespace zor::bench::sftp
