// What a test that plays the host sends and receives.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "client/packet.h"
#include "client/transport.h"
#include "support/unique_fd.h"
#include "test_bytes.h"

namespace zor::client::test {

inline constexpr const char* kNotice = "27 05 7A 00  0A 1A 00 00  10 00 00 00  00 00 00 00";
inline constexpr const char* kAnnouncement =
    "27 05 64 00  D2 04 00 00  17 00 00 00  00 00 00 00  03 00 'USB' 00 01";

struct Packet {
  std::uint8_t devId = 0;
  std::uint16_t cmd = 0;
  std::uint32_t id = 0;
  std::string bytes;  ///< the whole packet
};

inline std::pair<UniqueFd, UniqueFd> socketPair() {
  int fds[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

inline UniqueFd listenAt(const std::string& path) {
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ::unlink(path.c_str());
  EXPECT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(listener.get(), 1), 0);
  return listener;
}

inline void sendBytes(int socket, const std::string& bytes) {
  EXPECT_EQ(::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

inline std::string takeBytes(int socket, std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t have = 0;
  while (have < size) {
    const ssize_t got = ::recv(socket, bytes.data() + have, size - have, 0);
    if (got <= 0) return bytes.substr(0, have);
    have += static_cast<std::size_t>(got);
  }
  return bytes;
}

/// With cmd 0 at the end of the stream.
inline Packet takePacket(int socket) {
  Packet packet;
  packet.bytes = takeBytes(socket, 16);
  if (packet.bytes.size() < 16) return packet;
  PacketHeader header{};
  wire::Cursor(std::as_bytes(std::span(packet.bytes))).get(header);
  packet.devId = header.devId;
  packet.cmd = header.cmd;
  packet.id = header.requestId;
  packet.bytes += takeBytes(socket, header.length - 16);
  return packet;
}

inline std::string reply(const Packet& to, const std::string& payload) {
  const PacketHeader header{kPacketMagic,
                            to.devId,
                            to.cmd,
                            to.id,
                            static_cast<std::uint32_t>(16 + payload.size()),
                            0,
                            {}};
  const auto bytes = wire::encoded(header);
  return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()) + payload;
}

/// The reply's payload, or "error: ...".
using Outcome = std::future<std::string>;

inline Completion completing(const std::shared_ptr<std::promise<std::string>>& promise) {
  return [promise](Result<ReplyPayload> result) {
    promise->set_value(
        result ? std::string(reinterpret_cast<const char*>(result->data()), result->size())
               : "error: " + result.error().message);
  };
}

inline std::string settled(Outcome& outcome) {
  return outcome.wait_for(std::chrono::seconds(20)) == std::future_status::ready ? outcome.get()
                                                                                 : "still waiting";
}

}  // namespace zor::client::test
