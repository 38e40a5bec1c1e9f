#include "remote_link.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <thread>
#include <vector>

namespace zor::host {
namespace {

struct Pair {
  Pair() {
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) std::abort();
    host = UniqueFd(sockets[0]);
    remote = UniqueFd(sockets[1]);
  }
  std::string readAll(std::size_t size) const {
    std::string bytes(size, '\0');
    const ssize_t got = ::recv(remote.get(), bytes.data(), size, MSG_WAITALL);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
  }
  UniqueFd host, remote;
};

TEST(RemoteLink, SendsNothingThatTheBufferDoesNotHold) {
  Pair pair;
  RemoteLink link{UniqueFd(::dup(pair.host.get()))};
  const auto packet = [](std::uint32_t length) {
    auto made = std::make_unique<ZorPacket>(20);
    made->mHeader->length = length;
    return made;
  };
  for (const std::uint32_t length : {0U, 15U, 21U, 0xffffffffU}) {
    EXPECT_EQ(link.send(packet(length)), -1) << length;
  }
  EXPECT_EQ(link.send(packet(20)), 0) << "a malformed packet does not end the link";
  EXPECT_EQ(pair.readAll(20)[8], 20);
  EXPECT_FALSE(link.ended() || link.remoteGone());
  pair.remote = UniqueFd();
  EXPECT_TRUE(link.remoteGone());
  EXPECT_EQ(link.send(packet(20)), -1);
  EXPECT_TRUE(link.ended()) << "what is written in part ends the stream";
}

TEST(RemoteLink, KeepsThePacketsOfItsThreadsApartAndEndsThemTogether) {
  const Pair pair;
  RemoteLink link{UniqueFd(::dup(pair.host.get()))};
  constexpr std::size_t kSize = 300000;
  std::vector<std::thread> senders;
  for (const char mark : {'a', 'b', 'c'}) {
    senders.emplace_back([&, mark] {
      const std::string payload(kSize - 16, mark);
      std::unique_ptr<ZorPacket> packet;
      do {
        packet = std::make_unique<ZorPacket>(kSize);
        packet->AppendPayload(payload.data(), static_cast<std::uint32_t>(payload.size()));
      } while (link.send(std::move(packet)) == 0);
    });
  }
  for (int i = 0; i < 20; ++i) {
    const std::string packet = pair.readAll(kSize);
    ASSERT_EQ(packet.size(), kSize);
    EXPECT_EQ(packet.find_first_not_of(packet[16], 16), std::string::npos);
  }
  link.end();  // while all of them wait: nobody reads any more
  for (std::thread& sender : senders) sender.join();
}

}  // namespace
}  // namespace zor::host
