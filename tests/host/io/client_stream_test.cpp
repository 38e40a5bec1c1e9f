#include "host/io/client_stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "support/host_packets.h"
#include "zor_wait_listener.h"

namespace zor::host {
namespace {

using client::test::socketPair;
using client::test::takeBytes;

TEST(ClientStream, SendsNothingThatTheBufferDoesNotHold) {
  auto [near, far] = socketPair();
  SharedBudget shared;
  ClientStream link{UniqueFd(::dup(near.get())), shared};
  const auto packet = [](std::uint32_t length) {
    auto made = std::make_unique<ZorPacket>(20);
    made->mHeader->length = length;
    return made;
  };
  for (const std::uint32_t length : {0U, 15U, 21U, 0xffffffffU}) {
    EXPECT_EQ(link.send(packet(length)), -1) << length;
  }
  EXPECT_EQ(link.send(packet(20)), 0) << "a malformed packet does not end the link";
  EXPECT_EQ(takeBytes(far.get(), 20)[8], 20);
  EXPECT_FALSE(link.ended() || link.clientGone());
  far.reset();
  EXPECT_TRUE(link.clientGone());
  EXPECT_EQ(link.send(packet(20)), -1);
  EXPECT_TRUE(link.ended()) << "what is written in part ends the stream";
}

TEST(ClientStream, KeepsThePacketsOfItsThreadsApartAndEndsThemTogether) {
  const auto [near, far] = socketPair();
  SharedBudget shared;
  ClientStream link{UniqueFd(::dup(near.get())), shared};
  constexpr std::size_t kSize = 300000;
  std::atomic<int> told{0};
  struct Listener final : WaitListener {
    explicit Listener(std::atomic<int>& count) : told(count) {}
    void aboutToWait() noexcept override { told += !std::exchange(mTold, true); }
    std::atomic<int>& told;
    bool mTold = false;
  };
  std::vector<std::thread> senders;
  for (const char mark : {'a', 'b', 'c'}) {
    senders.emplace_back([&, mark] {
      Listener listener(told);
      listenForWaits(&listener);
      const std::string payload(kSize - 16, mark);
      std::unique_ptr<ZorPacket> packet;
      do {
        packet = std::make_unique<ZorPacket>(kSize);
        packet->AppendPayload(payload.data(), static_cast<std::uint32_t>(payload.size()));
      } while (link.send(std::move(packet)) == 0);
    });
  }
  for (int i = 0; i < 20; ++i) {
    const std::string packet = takeBytes(far.get(), kSize);
    ASSERT_EQ(packet.size(), kSize);
    EXPECT_EQ(packet.find_first_not_of(packet[16], 16), std::string::npos);
  }
  while (told < 3) std::this_thread::yield();
  link.end();  // while all of them wait: nobody reads any more
  for (std::thread& sender : senders) sender.join();
}

// Neither by not reading nor by not sending may one keep what the others wait for.
TEST(ClientStream, GivesUpOneThatStandsStillOnlyIfOthersWaitForItsMemory) {
  for (const bool sends : {true, false}) {
    const auto [near, far] = socketPair();
    SharedBudget shared;
    ClientStream link{UniqueFd(::dup(near.get())), shared};
    const timeval moment{0, 20000};
    ::setsockopt(near.get(), SOL_SOCKET, sends ? SO_SNDTIMEO : SO_RCVTIMEO, &moment, sizeof moment);
    std::atomic<bool> over{false};
    std::thread standing([&] {
      if (sends) {
        auto packet = std::make_unique<ZorPacket>(SharedBudget::kDefaultLimit);
        packet->mHeader->length = SharedBudget::kDefaultLimit;
        EXPECT_EQ(link.send(std::move(packet)), -1);
      } else {
        ASSERT_TRUE(link.budget().acquire({1, SharedBudget::kDefaultLimit}));
        char byte;
        iovec space{&byte, 1};
        EXPECT_EQ(link.receive({&space, 1}, Waiting::kBlocking), -ETIMEDOUT);
      }
      over = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(over);
    ReceiveBudget other(shared);
    std::thread waiter([&] { other.acquire({1, SharedBudget::kDefaultLimit}); });
    standing.join();
    other.stop();
    waiter.join();
  }
}

}  // namespace
}  // namespace zor::host
