// What is written when: this thread plays the driver that brings replies.
#include "host/io/outbox.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>

#include "host/io/io_policy.h"
#include "support/host_packets.h"
#include "support/process.h"

namespace zor::host {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kKiB = 1024;

TEST(IoPolicy, CoalescesSmallRepliesWhileMoreSmallRequestsAreInFlight) {
  const struct {
    std::size_t size;
    IoPolicy::Requests inFlight;
    IoPolicy::Replies waiting;
    bool coalesces;
  } rows[] = {{100, {2, 300}, {1, 400}, true},
              {100, {1, 300}, {1, 400}, false},  // nobody would bring another one
              {16 * kKiB + 1, {2, 300}, {1, 17 * kKiB}, false},
              {100, {2, 33 * kKiB}, {1, 400}, false},  // a client that writes
              {100, {9, 900}, {11, 4400}, true},
              {100, {9, 900}, {12, 4800}, false},
              {100, {9, 900}, {3, 64 * kKiB}, false}};
  for (const auto& row : rows) {
    EXPECT_EQ(IoPolicy::coalesces(row.size, row.inFlight, row.waiting), row.coalesces)
        << &row - rows;
  }
}

TEST(IoPolicy, HandsTheReaderRoleToAThreadThatAsks) {
  IoPolicy policy;
  IoPolicy::Time now{1h};
  EXPECT_FALSE(policy.wantsHandOff(100)) << "it has never asked";
  policy.ask();
  EXPECT_TRUE(policy.wantsHandOff(100));
  EXPECT_FALSE(policy.wantsHandOff(17 * kKiB));
  policy.sleep();
  EXPECT_FALSE(policy.wantsHandOff(100) || policy.handOff(now)) << "nobody would read";
  policy.wake();
  ASSERT_TRUE(policy.wantsHandOff(100) && policy.handOff(now));
  EXPECT_TRUE(policy.isHandedOff());
  now += 3ms;
  policy.read(now);
  EXPECT_FALSE(policy.isOverdue(now + 3ms));
  EXPECT_TRUE(policy.isOverdue(now + 4ms));
  policy.waitToRead();
  EXPECT_FALSE(policy.isOverdue(now + 1h)) << "it reads as soon as there is something";
  policy.takeBack();
  EXPECT_FALSE(policy.isHandedOff() || policy.wantsHandOff(100)) << "it is busy";
  policy.ask();
  ASSERT_TRUE(policy.handOff(now));
  policy.giveUp();
  EXPECT_TRUE(!policy.isHandedOff() && policy.wantsHandOff(100));
}

class OutboxTest : public ::testing::Test {
 protected:
  ~OutboxTest() override { end(); }
  void end() {
    mBudget.stop();
    ::shutdown(mNear.get(), SHUT_RDWR);
    mOutbox.wake();
  }
  bool send(char mark, std::size_t size = 20) {
    auto packet = std::make_unique<ZorPacket>(size);
    packet->mHeader->length = static_cast<std::uint32_t>(size);
    packet->mBuffer->data[size - 1] = static_cast<std::uint8_t>(mark);
    return mOutbox.send(std::move(packet), size);
  }
  std::size_t arrived() const {
    std::string bytes(1 << 20, '\0');
    const ssize_t got = ::recv(mFar.get(), bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
    return got < 0 ? 0 : static_cast<std::size_t>(got);
  }

  std::pair<UniqueFd, UniqueFd> mEnds = client::test::socketPair();
  UniqueFd &mNear = mEnds.first, &mFar = mEnds.second;
  SharedBudget mShared;
  ReceiveBudget mBudget{mShared};
  std::atomic<int> mFailures{0};
  Outbox mOutbox{mNear.get(), mBudget, [this] { ++mFailures; }};
};

TEST_F(OutboxTest, WritesAReplyThatNothingFollowsAndWhatWasCoalescedBeforeIt) {
  EXPECT_TRUE(send('a'));
  EXPECT_EQ(arrived(), 20U);
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(mBudget.acquire({100}));
  EXPECT_TRUE(send('b') && send('c'));
  mBudget.ReleasePacket(100);
  EXPECT_TRUE(send('d'));
  EXPECT_EQ(arrived(), 80U);
  std::string marks;
  for (int i = 0; i < 4; ++i) marks += client::test::takeBytes(mFar.get(), 20).back();
  EXPECT_EQ(marks, "abcd");
}

TEST_F(OutboxTest, WritesWhatWasCoalescedThoughNothingComes) {
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(mBudget.acquire({100}));
  for (std::size_t bytes = 20; bytes <= 60; bytes += 20) {
    EXPECT_TRUE(send('a'));
    EXPECT_TRUE(test::eventually([&] { return arrived() == bytes; }));
  }
  for (int i = 0; i < 3; ++i) {
    send('b');
    mOutbox.flush();
    EXPECT_EQ(arrived(), 80U + static_cast<std::size_t>(i) * 20);
  }
  EXPECT_EQ(mOutbox.written(), 120U);
}

TEST_F(OutboxTest, KeepsTheOrderOfLargeAndSmallReplies) {
  constexpr std::size_t kSizes[] = {20, 128 * kKiB, 20, 20, 300 * kKiB, 128 * kKiB, 17 * kKiB};
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(mBudget.acquire({100}));
  const auto mark = [](std::size_t i) { return static_cast<char>('a' + i % 26); };
  std::thread sender([&] {
    for (std::size_t i = 0; i < 100; ++i) EXPECT_TRUE(send(mark(i), kSizes[i % 7]));
  });
  for (std::size_t i = 0; i < 100; ++i) {
    EXPECT_EQ(client::test::takeBytes(mFar.get(), kSizes[i % 7]).back(), mark(i));
  }
  sender.join();
}

TEST_F(OutboxTest, ReportsOnceThatItCannotWriteAndTakesNothingAfterTheEnd) {
  mFar.reset();
  EXPECT_FALSE(send('a'));
  EXPECT_EQ(mFailures, 1);
  end();
  EXPECT_FALSE(send('b'));
  mOutbox.flush();
  EXPECT_EQ(mFailures, 1);
}

}  // namespace
}  // namespace zor::host
