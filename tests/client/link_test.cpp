// The link against a host that the test plays itself.
#include "client/link.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "client/bandwidth.h"
#include "support/host_packets.h"

namespace zor::client::test {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

class LinkTest : public ::testing::Test {
 protected:
  void SetUp() override { std::tie(mClientEnd, mHost) = socketPair(); }

  void start(LinkOptions options = {}) {
    mLink = std::make_unique<Link>(std::move(mClientEnd), std::move(options));
  }

  /// Starts the link and lets the host announce its disk.
  void introduce(LinkOptions options = {}) {
    start(std::move(options));
    send(hex(kNotice) + hex(kAnnouncement));
    ASSERT_TRUE(mLink->waitForAnnouncement(10s).ok());
    receive();
  }

  void send(const std::string& bytes) { sendBytes(mHost.get(), bytes); }
  Packet receive() { return takePacket(mHost.get()); }

  static OutgoingRequest request(const std::string& payload = "p") {
    return {wire::Command::kGetFileAttr, Buffer(std::string_view(payload)), {}};
  }

  Outcome submit(OutgoingRequest toSend) {
    auto promise = std::make_shared<std::promise<std::string>>();
    mLink->submit(std::move(toSend), completing(promise));
    return promise->get_future();
  }

  UniqueFd mClientEnd;
  UniqueFd mHost;
  std::unique_ptr<Link> mLink;
};

TEST_F(LinkTest, AnswersTheAnnouncementAndSpeaksWithItsIdentity) {
  start({.driveName = "E:"});
  send(hex(kNotice) + hex(kAnnouncement));
  auto announcement = mLink->waitForAnnouncement(10s);
  ASSERT_TRUE(announcement.ok());
  EXPECT_EQ(announcement->name, "USB");
  EXPECT_TRUE(announcement->readOnly);
  EXPECT_TRUE(mLink->servesSmallFiles());
  EXPECT_EQ(receive().bytes,
            hex("27 05 C8 00  01 00 00 00  19 00 00 00  00 00 00 00  03 00  02 00 'E:USB'"));
  submit({wire::Command::kFileWrite, Buffer(std::string_view("ab")),
          shared(Buffer(std::string_view("c")))});
  EXPECT_EQ(receive().bytes, hex("27 05 6A 00  02 00 00 00  13 00 00 00  00 00 00 00 'abc'"));
}

TEST_F(LinkTest, FindsTheAnnouncementAmongOtherPacketsAndInAnyPieces) {
  start();
  const std::string stream = hex("27 09 66 00  01 00 00 00  12 00 00 00  00 00 00 00 'xy'") +
                             hex(kAnnouncement) + hex(kAnnouncement) + hex(kNotice);
  for (const char byte : stream) send(std::string(1, byte));
  ASSERT_TRUE(mLink->waitForAnnouncement(10s).ok());
  EXPECT_EQ(receive().cmd, 200);
  Outcome outcome = submit(request());
  const Packet sent = receive();
  EXPECT_EQ(sent.cmd, 102) << "only one announcement is answered";
  const std::string answer = reply(sent, "in pieces");
  for (const char byte : answer) send(std::string(1, byte));
  EXPECT_EQ(settled(outcome), "in pieces");
  EXPECT_TRUE(mLink->servesSmallFiles());
}

TEST_F(LinkTest, MatchesAnswersByIdentityAndKnowsWhatWasPassedOver) {
  introduce();
  std::vector<Outcome> outcomes;
  std::vector<Packet> sent;
  for (int i = 0; i < 50; ++i) {
    outcomes.push_back(submit(request(std::to_string(i))));
    sent.push_back(receive());
  }
  std::string answers;
  for (std::size_t i = 0; i < sent.size(); ++i) {
    if (i % 3 == 0) continue;
    Packet stranger = sent[i];
    stranger.id = 0x70000000;
    answers += reply(stranger, "unknown identity");
    stranger = sent[i];
    stranger.devId = 6;
    answers += reply(stranger, "another device");
    answers += reply(sent[i], std::to_string(i));
    answers += reply(sent[i], "twice");
  }
  send(answers);
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_THAT(settled(outcomes[i]), HasSubstr(i % 3 == 0 ? "passed over" : std::to_string(i)));
  }
  Outcome confused = submit(request());
  Packet other = receive();
  other.cmd = 105;
  send(reply(other, ""));
  EXPECT_THAT(settled(confused), HasSubstr("another command"));
}

TEST_F(LinkTest, NeverUsesTheHostsOwnIdentities) {
  introduce();
  for (int i = 0; i < 7000; ++i) {
    mLink->submit(request(), [](const Result<ReplyPayload>&) {});
    const Packet sent = receive();
    ASSERT_NE(sent.id, 1234U);
    ASSERT_NE(sent.id, 6666U);
    ASSERT_EQ(sent.devId, 5);
  }
}

TEST_F(LinkTest, EverythingFailsWhenTheHostGoes) {
  std::promise<std::string> broken;
  introduce({.onBroken = [&](const Error& error) { broken.set_value(error.message); }});
  Outcome first = submit(request());
  Outcome second = submit(request());
  const Packet sent = receive();
  send(reply(sent, "last words").substr(0, 20));
  mHost.reset();
  EXPECT_EQ(settled(first), "error: the host closed the connection");
  EXPECT_EQ(settled(second), "error: the host closed the connection");
  EXPECT_EQ(broken.get_future().get(), "the host closed the connection");
  Outcome late = submit(request());
  EXPECT_EQ(settled(late), "error: the host closed the connection");
}

TEST_F(LinkTest, DestructionFailsWhatIsInFlight) {
  introduce();
  Outcome outcome = submit(request());
  mLink.reset();
  EXPECT_THAT(settled(outcome), HasSubstr("closed on this side"));
}

TEST_F(LinkTest, StreamsThatAreNoPacketsBreakTheLink) {
  for (const auto& [bytes, message] : {std::pair{"28056600 02000000 10000000", "not a packet"},
                                       {"27056600 02000000 0f000000", "impossible length 15"},
                                       {"27056600 02000000 00000000", "impossible length 0"},
                                       {"27056600 02000000 01000040", "length 1073741825"},
                                       {"27056600 02000000 40000001 01", "length 1073741825"}}) {
    SetUp();
    introduce();
    Outcome outcome = submit(request());
    std::string stream = hex(bytes);
    stream.resize(16);
    send(stream);
    EXPECT_THAT(settled(outcome), HasSubstr(message));
    mLink.reset();
  }
}

TEST_F(LinkTest, MalformedOrMissingAnnouncementsEndTheIntroduction) {
  const std::string kHead = "27056400 d2040000 ", malformed = "malformed";
  for (const auto& [typed, message] :
       {std::pair{kHead + "16000000 00000000 0300 'USB' 00", malformed},
        {kHead + "17000000 00000000 ffff 'USB' 00 01", malformed},
        {kHead + "17000000 00000000 0300 'USBx' 01", malformed},
        {kHead + "18000000 00000000 0300 'USB' 00 01 00", malformed},
        {kHead + "10000000 00000000", malformed},
        {kNotice + std::string("'gone'"), "before it announced a disk"}}) {
    SetUp();
    start();
    send(hex(typed));
    mHost.reset();
    auto announcement = mLink->waitForAnnouncement(10s);
    ASSERT_FALSE(announcement.ok());
    EXPECT_THAT(announcement.error().message, HasSubstr(message));
    mLink.reset();
  }
  SetUp();
  start();
  Outcome early = submit(request());
  EXPECT_THAT(settled(early), HasSubstr("no disk has been announced"));
  EXPECT_THAT(mLink->waitForAnnouncement(10ms).error().message, HasSubstr("for 10 ms"));
}

TEST_F(LinkTest, GivesUpWhenTheHostIsSilentAndOnlyThen) {
  introduce({.idleTimeout = 300ms});
  std::this_thread::sleep_for(400ms);
  Outcome outcome = submit(request());  // silence without a request did not count
  mLink->post([] {});                   // makes the link read the clock
  const Packet sent = receive();
  const std::string answer = reply(sent, std::string(30, 'x'));
  send(answer.substr(0, 16));
  for (const char byte : answer.substr(16)) {  // slower than the limit in all
    std::this_thread::sleep_for(20ms);
    send(std::string(1, byte));
  }
  EXPECT_EQ(settled(outcome), std::string(30, 'x'));
  Outcome silent = submit(request());
  EXPECT_EQ(settled(silent), "error: no answer from the host for 300 ms");
}

TEST_F(LinkTest, OnlyAnswersKeepItWaiting) {
  const std::function<std::string(const Packet&, int)> kHosts[] = {
      [](const Packet&, int) { return hex(kNotice); },
      [](const Packet& sent, int) {
        Packet stranger = sent;
        stranger.id += 100;
        return reply(stranger, "unknown");
      },
      [](const Packet&, int i) {
        return i < 16 ? hex(kNotice).substr(static_cast<std::size_t>(i), 1) : "x";
      },
      [](const Packet& sent, int i) {  // of a long answer, a byte at a time
        return i == 0 ? reply(sent, std::string(200'000, 'x')).substr(0, 16) : "x";
      },
  };
  for (const auto& host : kHosts) {
    SetUp();
    introduce({.idleTimeout = 300ms});
    Outcome outcome = submit(request());
    const Packet sent = receive();
    for (int i = 0; i < 400 && outcome.wait_for(20ms) != std::future_status::ready; ++i) {
      const std::string bytes = host(sent, i);
      ::send(mHost.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    ASSERT_EQ(outcome.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(settled(outcome), "error: no answer from the host for 300 ms");
  }
}

TEST_F(LinkTest, KeepsNoAnswerThatIsTooLong) {
  introduce();
  Outcome outcome = submit(request());
  const Packet sent = receive();
  Packet stranger = sent;
  stranger.id += 100;
  send(reply(stranger, std::string(2 << 20, 's')) + reply(sent, std::string(1 << 20, 'x')) +
       reply(stranger, ""));
  EXPECT_EQ(settled(outcome), "error: the host's answer of 1048592 bytes is too long to be kept");
  Outcome next = submit(request());
  send(reply(receive(), "next"));
  EXPECT_EQ(settled(next), "next");
}

TEST_F(LinkTest, RecognizesUnansweredRequestsByTheFenceBehindThem) {
  introduce();
  const auto submitFenced = [this] {
    auto promise = std::make_shared<std::promise<std::string>>();
    mLink->submitFenced(request("maybe"), completing(promise),
                        {wire::Command::kFileFlush, Buffer(std::string_view("fence")), {}});
    return promise->get_future();
  };
  Outcome silent = submitFenced();
  receive();
  send(reply(receive(), "fence"));
  EXPECT_THAT(settled(silent), HasSubstr("passed over"));

  Outcome answeredToo = submitFenced();
  const Packet maybe = receive();
  const Packet fence = receive();
  EXPECT_EQ(fence.cmd, 119);
  send(reply(maybe, "changed") + reply(fence, "fence"));
  EXPECT_EQ(settled(answeredToo), "changed");

  Outcome lost = submitFenced();
  mHost.reset();
  EXPECT_THAT(settled(lost), HasSubstr("closed the connection"));
}

TEST_F(LinkTest, NeverBlocksWhileTheHostDoesNotRead) {
  introduce();
  // Far more than the socket holds, and more of it from within completions.
  constexpr int kCount = 40;
  constexpr std::size_t kSize = std::size_t{1} << 20;
  std::vector<Outcome> outcomes;
  const auto big = [](int i) {
    Buffer data(kSize);
    std::memset(data.data(), i, data.size());
    return OutgoingRequest{wire::Command::kFileWrite, Buffer(std::string_view("w")),
                           shared(std::move(data))};
  };
  auto followUp = std::make_shared<std::promise<std::string>>();
  mLink->submit(request(), [this, big, followUp](const Result<ReplyPayload>&) {
    mLink->submit(big(kCount), completing(followUp));
  });
  const Packet first = receive();
  for (int i = 0; i < kCount; ++i) outcomes.push_back(submit(big(i)));
  send(reply(first, ""));
  std::this_thread::sleep_for(50ms);
  outcomes.push_back(followUp->get_future());
  for (int i = 0; i <= kCount; ++i) {
    const Packet packet = receive();
    ASSERT_EQ(packet.bytes.size(), 17 + kSize);
    EXPECT_EQ(packet.bytes.find_first_not_of(static_cast<char>(packet.bytes[17]), 17),
              std::string::npos);
    send(reply(packet, std::string(1, packet.bytes[17])));
  }
  std::string order;
  for (Outcome& outcome : outcomes) order += settled(outcome);
  std::string expected;
  for (int i = 0; i <= kCount; ++i) expected += static_cast<char>(i);
  EXPECT_EQ(order, expected);
}

TEST_F(LinkTest, AnnouncesTheBandwidthAgainAndAgain) {
  introduce();
  const BandwidthAnnouncer announcer(*mLink, 20000, 10ms);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(receive().bytes.substr(8), hex("14 00 00 00  00 00 00 00  20 4E 00 00"));
  }
  EXPECT_EQ(receive().cmd, 513);
}

TEST(PacketReaderTest, MakesRoomOnlyForWhatArrives) {
  PacketReader reader;
  const std::string header = hex("27 05 66 00  02 00 00 00  00 00 00 40  00 00 00 00");
  std::memcpy(reader.room().back().iov_base, header.data(), header.size());
  const auto ignore = [](const PacketHeader&, const Buffer&) {};
  ASSERT_TRUE(reader.consume(header.size(), ignore).ok());
  std::size_t arrived = 0;
  std::size_t room = 0;
  while (arrived < (std::size_t{64} << 20)) {
    const auto parts = reader.room();
    room = arrived + parts[0].iov_len;
    ASSERT_LE(room, std::max(std::size_t{2} << 20, 2 * arrived));
    ASSERT_TRUE(reader.consume(parts[0].iov_len, ignore).ok());
    arrived = room;
  }
}

}  // namespace
}  // namespace zor::client::test
