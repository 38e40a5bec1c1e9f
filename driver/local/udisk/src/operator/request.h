// One decoded request: the only place where bytes of a peer are read.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <utility>

#include "file_manager_linux/log_text.h"
#include "operation.h"
#include "protocol/codec.h"
#include "zor_packet.h"

namespace zor {

/// What the peer may be believed to have sent behind the header: it ends where
/// `length` says or where the received bytes end, whichever comes first.
wire::Bytes payloadOf(const ZorPacket& packet) noexcept;

/// The one line that a request gets whose declared parts do not fit into it.
void reportMalformed(const ZorPacket& packet) noexcept;

/// A string of a request; points into the packet.
struct PeerString {
  PeerString() = default;
  explicit PeerString(wire::Bytes bytes) noexcept
      : received(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
        text(received.substr(0, received.find('\0'))) {}

  /// False when a zero byte hides the rest of the declared bytes.
  bool whole() const noexcept { return text.size() == received.size(); }

  LogText logged() const noexcept { return LogText(text); }

  std::string_view received;  ///< every declared byte
  std::string_view text;      ///< up to the first zero byte: what the string means
};

/// One call of a handler: the request, and its row in the table of commands.
struct HandlerCall {
  const Operation& operation;
  const ZorPacket& packet;
  unsigned char headerLength;  ///< what a reply reserves for its header
};

/// Decodes the fixed part and the strings behind it. A request that does not
/// hold them is reported and converts to false: leave it alone.
template <wire::Record R>
class DecodedRequest : public HandlerCall {
 public:
  explicit DecodedRequest(const HandlerCall& call) noexcept : HandlerCall(call) {
    wire::Cursor cursor(payloadOf(packet));
    if (cursor.get(record)) {
      std::apply(
          [&](auto... length) {
            std::size_t at = 0;
            ((strings[at++] = PeerString(cursor.take(record.*length))), ...);
          },
          R::kStrings);
    }
    mRest = cursor.rest();
    mOk = cursor.ok();
    if (!mOk) reportMalformed(packet);
  }

  explicit operator bool() const noexcept { return mOk; }
  const PeerString& path() const noexcept { return strings[0]; }

  /// The declared data behind the strings. False (and reported) when less is there.
  bool data(std::int64_t size, wire::Bytes& out) const noexcept {
    if (size < 0 || static_cast<std::uint64_t>(size) > mRest.size()) {
      reportMalformed(packet);
      return false;
    }
    out = mRest.first(static_cast<std::size_t>(size));
    return true;
  }

  R record{};  ///< handlers fill in the results and echo it
  std::array<PeerString, std::tuple_size_v<decltype(R::kStrings)>> strings;

 private:
  wire::Bytes mRest;
  bool mOk = false;
};

}  // namespace zor
