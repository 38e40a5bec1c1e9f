#include "receive_budget.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace zor::host {
namespace {

TEST(ReceiveBudget, NeverLetsMoreInFlightThanItsLimit) {
  constexpr std::size_t kLimit = 1000, kCount = 20000;
  const auto sizeOf = [](std::size_t i) { return i % 97 == 0 ? 5 * kLimit : 1 + i * 31 % 700; };
  ReceiveBudget budget({}, kLimit);
  std::atomic<std::size_t> taken{0}, sum{0};
  std::thread consumer([&] {
    for (std::size_t i = 0; i < kCount; ++i) {
      while (taken.load() <= i) std::this_thread::yield();
      sum -= sizeOf(i);
      budget.ReleasePacket(sizeOf(i));
    }
  });
  for (std::size_t i = 0; i < kCount; ++i) {
    ASSERT_TRUE(budget.acquire(sizeOf(i)));
    const std::size_t before = sum.fetch_add(sizeOf(i));
    EXPECT_TRUE(before == 0 || before + sizeOf(i) <= kLimit);
    ++taken;
  }
  EXPECT_TRUE(budget.waitIdle());
  EXPECT_EQ(sum, 0U);
  consumer.join();
}

TEST(ReceiveBudget, StopEndsEveryWaiting) {
  ReceiveBudget budget({}, 100);
  ASSERT_TRUE(budget.acquire(100));
  std::thread waiter([&] { EXPECT_FALSE(budget.acquire(1)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  budget.stop();
  waiter.join();
  EXPECT_FALSE(budget.waitIdle());
  budget.ReleasePacket(100);
  EXPECT_FALSE(budget.acquire(1));
}

}  // namespace
}  // namespace zor::host
