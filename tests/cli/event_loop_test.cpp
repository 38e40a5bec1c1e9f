#include "cli/event_loop.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace zor::client::cli {
namespace {

TEST(EventLoopTest, DestroysWhatACallbackOwnsOnTheLoopsThread) {
  EventLoop loop;
  std::thread::id destroyed;
  auto callback = [&] {
    // What is captured of a constant is constant, and cannot be moved.
    const std::shared_ptr<void> owned(nullptr,
                                      [&](void*) { destroyed = std::this_thread::get_id(); });
    return onLoop<int>(loop, [owned](const Result<int>&) {});
  }();
  std::thread([&] { callback(1); }).join();
  EXPECT_TRUE(loop.runOne());
  EXPECT_EQ(destroyed, std::this_thread::get_id()) << "the callback may live on elsewhere";
}

}  // namespace
}  // namespace zor::client::cli
