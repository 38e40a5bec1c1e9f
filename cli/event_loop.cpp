#include "cli/event_loop.h"

#include <asio.hpp>
#include <atomic>
#include <csignal>
#include <optional>

namespace zor::client::cli {

struct EventLoop::State {
  void waitForSignal() {
    signals->async_wait([this](const std::error_code& stopped, int number) {
      if (stopped) return;
      if (seen.exchange(number) != 0) {
        // A user who asks twice does not want to wait for the cleaning up.
        ::signal(number, SIG_DFL);
        ::raise(number);
      }
      asio::post(tasks, [] {});
      waitForSignal();
    });
  }

  asio::io_context tasks{1};
  asio::executor_work_guard<asio::io_context::executor_type> work{tasks.get_executor()};
  std::atomic<int> seen{0};
  // On a thread of their own: the main thread may block in the local file system.
  std::optional<asio::thread_pool> signalThread;
  std::optional<asio::signal_set> signals;
};

EventLoop::EventLoop() : mState(std::make_unique<State>()) {}

EventLoop::~EventLoop() {
  if (!mState->signalThread) return;
  // Before the signal set goes, which the thread may be using.
  mState->signalThread->stop();
  mState->signalThread->join();
}

void EventLoop::post(std::function<void()> task) { asio::post(mState->tasks, std::move(task)); }

bool EventLoop::runOne(std::chrono::milliseconds limit) {
  if (signal() == 0) mState->tasks.run_one_for(limit);
  return signal() == 0;
}

void EventLoop::cleanUp(std::chrono::milliseconds limit, const std::function<bool()>& done) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done() && mState->tasks.run_one_until(end) > 0) {
  }
}

void EventLoop::catchSignals() {
  mState->signalThread.emplace(1);
  mState->signals.emplace(*mState->signalThread);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction before {};
    ::sigaction(number, nullptr, &before);
    if (before.sa_handler != SIG_IGN) mState->signals->add(number);
  }
  mState->waitForSignal();
}

int EventLoop::signal() const { return mState->seen; }

}  // namespace zor::client::cli
