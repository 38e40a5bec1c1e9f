// The framed packet in which every request, reply, event and announcement
// travels: a 16-byte header and a payload in one contiguous buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#include "protocol/packet_header.h"

namespace zor {

/// Learns when the memory of a received packet is given back. A receive path
/// attaches one to the packets it makes, to bound what a peer can have in
/// flight. `ReleasePacket` is called on whichever thread destroys the packet.
class PacketBudget {
 public:
  virtual void ReleasePacket(std::size_t bytes) noexcept = 0;

 protected:
  ~PacketBudget() = default;
};

struct PacketBuffer;

/// Gives a buffer's charge back to its budget. Optional in a framework library: where
/// it is missing, buffers need not have what stands behind `capacity`.
[[gnu::weak]] void releaseBudget(const PacketBuffer& buffer) noexcept;

/// The storage of a packet. `data` comes from the C allocator and is freed
/// with `free` when the buffer is destroyed.
struct PacketBuffer {
  PacketBuffer(std::uint8_t* bytes, std::uint64_t size) noexcept : data(bytes), capacity(size) {}
  ~PacketBuffer() {
    std::free(data);
    if (releaseBudget != nullptr) releaseBudget(*this);
  }
  PacketBuffer(const PacketBuffer&) = delete;
  PacketBuffer& operator=(const PacketBuffer&) = delete;
  // A buffer that another framework made may be shorter: the allocator must not get a size.
  static void operator delete(void* memory) noexcept { ::operator delete(memory); }

  std::uint8_t* data;
  std::uint64_t capacity;          ///< bytes at `data`
  PacketBudget* budget = nullptr;  ///< not owned; must outlive the packet
  std::size_t charge = 0;          ///< what `budget` gets back
};

/// A packet owns its buffer. Not thread-safe: one thread at a time.
///
/// No operation throws. A packet without a buffer (an allocation failed, or
/// it was never given one) answers every getter with 0 or null.
/// Malformed input and refused appends are reported by one line on standard
/// output and a result of -1.
class ZorPacket {
 public:
  /// A packet with a fresh header, `length` 16 and room for `capacity` bytes
  /// in all (at least 16). Without memory the packet has no buffer.
  explicit ZorPacket(std::size_t capacity) noexcept;
  ~ZorPacket() = default;
  ZorPacket(const ZorPacket&) = delete;
  ZorPacket& operator=(const ZorPacket&) = delete;

  /// Writes the identity of an outgoing packet; `length` is not touched.
  void SetHeader(std::uint8_t devId, std::uint16_t cmd, std::uint32_t requestId) noexcept;

  /// Adds `len` bytes behind the current end. 0, or -1 with the packet
  /// unchanged. A piece larger than the payload capacity is refused; one that
  /// merely exceeds the room that is left makes the buffer grow by 128 KiB, or
  /// by what is needed where that is more.
  int AppendPayload(const void* data, std::uint32_t len) noexcept;

  /// Makes the packet hold `buf`. With `copy` false `buf` must come from the
  /// C allocator and belongs to the packet from now on; on -1 it stays the
  /// caller's and the packet is unchanged. Big-endian headers are converted;
  /// `netOrder` keeps its value.
  int FromBuffer(std::uint8_t* buf, std::uint32_t len, bool copy) noexcept;

  /// A packet of its own with the same `length` bytes; null without memory or
  /// when `length` exceeds what this packet holds.
  std::unique_ptr<ZorPacket> Clone() const noexcept;

  /// Reads the next 32-bit payload value. 0, or -1 with `*out` unchanged.
  int ReadUint32(std::uint32_t* out) noexcept;

  /// The payload from the read position on, or null. Says nothing about how
  /// many bytes are there: bound every access by `length` and `capacity`.
  std::uint8_t* GetPayload() const noexcept;

  std::uint8_t GetDevId() const noexcept { return mBuffer ? mHeader->devId : std::uint8_t{0}; }
  std::uint16_t GetCmd() const noexcept { return mBuffer ? mHeader->cmd : std::uint16_t{0}; }
  std::uint32_t GetRequestId() const noexcept { return mBuffer ? mHeader->requestId : 0; }
  std::uint32_t GetLength() const noexcept { return mBuffer ? mHeader->length : 0; }

  PacketHeader* mHeader = nullptr;  ///< the start of the buffer's data
  std::int32_t mReadPos = 0;        ///< read position, in bytes from offset 16
  bool mHeaderReady = false;        ///< appending requires a header
  std::unique_ptr<PacketBuffer> mBuffer;
};

}  // namespace zor
