#include "host/io/receive_budget.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "support/process.h"

namespace zor::host {
namespace {

TEST(ReceiveBudget, NeverLetsMoreInFlightThanItsLimit) {
  constexpr std::size_t kLimit = 1000, kCount = 20000;
  const auto sizeOf = [](std::size_t i) {
    return static_cast<std::uint32_t>(i % 97 == 0 ? 5 * kLimit : 1 + i * 31 % 700);
  };
  SharedBudget shared;
  ReceiveBudget budget(shared, kLimit);
  std::atomic<std::size_t> taken{0}, sum{0};
  std::thread consumer([&] {
    for (std::size_t i = 0; i < kCount; ++i) {
      while (taken.load() <= i) std::this_thread::yield();
      sum -= sizeOf(i);
      budget.ReleasePacket(sizeOf(i));
    }
  });
  for (std::size_t i = 0; i < kCount; ++i) {
    ASSERT_TRUE(budget.acquire({sizeOf(i)}));
    const std::size_t before = sum.fetch_add(sizeOf(i));
    EXPECT_TRUE(before == 0 || before + sizeOf(i) <= kLimit);
    ++taken;
  }
  EXPECT_TRUE(budget.waitIdle());
  EXPECT_EQ(sum, 0U);
  consumer.join();
}

TEST(ReceiveBudget, StopEndsEveryWaiting) {
  SharedBudget shared;
  ReceiveBudget budget(shared, 100);
  ASSERT_TRUE(budget.acquire({100}));
  std::thread waiter([&] { EXPECT_FALSE(budget.acquire({1})); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  budget.stop();
  waiter.join();
  EXPECT_FALSE(budget.waitIdle());
  budget.ReleasePacket(100);
  EXPECT_FALSE(budget.acquire({1}));
}

constexpr std::uint32_t kShare = ReceiveBudget::kOwnShare;

// One that is stuck leaves the others their share, and who waits for more is not kept out by
// those who take little.
TEST(ReceiveBudget, WhatIsBeyondTheSharesIsHadInTurn) {
  SharedBudget shared(1000);
  ReceiveBudget stuck(shared), large(shared), small(shared);
  ASSERT_TRUE(stuck.acquire({kShare, 900}));
  EXPECT_TRUE(large.tryAcquire({kShare}));
  EXPECT_FALSE(large.tryAcquire({101}));
  EXPECT_TRUE(large.tryAcquire({100}));
  std::thread waiter([&] { EXPECT_TRUE(large.acquire({5, 895})); });
  EXPECT_TRUE(test::eventually([&] { return shared.waiting() == 1; }));
  EXPECT_TRUE(stuck.keepsOthersWaiting());
  EXPECT_FALSE(large.keepsOthersWaiting());
  EXPECT_TRUE(small.tryAcquire({kShare}));
  EXPECT_FALSE(small.tryAcquire({1})) << "it is another one's turn";
  stuck.ReleasePacket(ReceiveBudget::Charge{kShare, 900}.token());
  waiter.join();
  EXPECT_FALSE(stuck.keepsOthersWaiting());
  EXPECT_TRUE(large.total() == kShare + 1000U && large.bytes() == kShare + 105U);
}

TEST(ReceiveBudget, RepliesCountUntilTheyAreGone) {
  SharedBudget shared(1000);
  ReceiveBudget reading(shared), other(shared);
  ASSERT_TRUE(reading.acquire({100, kShare}));
  auto reply = std::make_unique<ZorPacket>(kShare);
  reading.chargeReply(*reply->mBuffer);
  reading.ReleasePacket(ReceiveBudget::Charge{100, kShare}.token());
  EXPECT_TRUE(reading.waitIdle());
  EXPECT_FALSE(other.tryAcquire({kShare + 900})) << "of the reply 256 bytes are beyond the share";
  reply.reset();
  EXPECT_EQ(reading.total(), 0U);
  EXPECT_TRUE(other.tryAcquire({kShare + 900}));
}

}  // namespace
}  // namespace zor::host
