// The one way in which replies are built.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "file_manager_linux/file_manager_linux.h"
#include "protocol/codec.h"
#include "request.h"
#include "zor_packet.h"

namespace zor {

/// Builds a reply in the memory that is sent: pieces are appended in order, and
/// file contents are read to their final place. Running out of memory makes
/// `take` return null, whichever step it was.
class ReplyBuilder final : public ReadTarget {
 public:
  /// A reply with the identity of `request` and room for the pieces announced.
  ReplyBuilder(const HandlerCall& request, std::uint64_t payloadSize) noexcept;

  template <wire::Record R>
  ReplyBuilder& add(const R& record) noexcept {
    const auto bytes = wire::encoded(record);
    return add(wire::Bytes(bytes));
  }
  ReplyBuilder& add(wire::Bytes bytes) noexcept;
  ReplyBuilder& add(std::string_view bytes) noexcept;
  /// The text of `string` and zero bytes up to its declared length.
  ReplyBuilder& addText(const PeerString& string) noexcept;

  /// Memory behind the last piece, growing the reply if need be. What was put
  /// there becomes part of the reply by `commit`.
  std::byte* room(std::size_t size) noexcept override;
  void commit(std::size_t size) noexcept;

  /// Writes a record again that stands at `payloadOffset`, with what is known now.
  template <wire::Record R>
  void rewrite(std::size_t payloadOffset, const R& record) noexcept {
    if (mPacket) wire::encodeAt(data() + kPacketHeaderSize + payloadOffset, record);
  }

  /// Bytes so far, header included.
  std::uint32_t size() const noexcept { return mPacket ? mPacket->GetLength() : 0; }
  /// The finished packet, or null.
  std::unique_ptr<ZorPacket> take() noexcept { return std::move(mPacket); }

 private:
  std::byte* data() const noexcept { return reinterpret_cast<std::byte*>(mPacket->mBuffer->data); }

  std::unique_ptr<ZorPacket> mPacket;
};

/// The commonest reply: the fixed part with its results, and the strings.
template <wire::Record R>
ReplyBuilder recordReply(const DecodedRequest<R>& request) noexcept {
  std::uint64_t size = wire::wireSize<R>();
  for (const PeerString& string : request.strings) size += string.received.size();
  ReplyBuilder reply(request, size);
  reply.add(request.record);
  for (const PeerString& string : request.strings) reply.addText(string);
  return reply;
}

}  // namespace zor
