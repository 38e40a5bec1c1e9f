#include "cli/event_loop.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace zor::client::cli {

namespace {

std::atomic<int> signalSeen{0};
std::atomic<int> signalWakeup{-1};
static_assert(std::atomic<int>::is_always_lock_free);

void wake(int fd) {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(fd, &one, sizeof one);
}

extern "C" void onSignal(int number) {
  const int saved = errno;
  if (signalSeen.exchange(number) != 0) {
    // Whoever asks twice does not want to wait for the cleaning up.
    ::signal(number, SIG_DFL);
    ::raise(number);
  }
  wake(signalWakeup);
  errno = saved;
}

}  // namespace

EventLoop::EventLoop() : mWakeup(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!mWakeup) throw std::system_error(errno, std::generic_category(), "eventfd");
  signalSeen = 0;
}

void EventLoop::post(std::function<void()> task) {
  const std::lock_guard lock(mMutex);
  mTasks.push_back(std::move(task));
  if (mTasks.size() == 1) wake(mWakeup.get());
}

bool EventLoop::runOne(int timeoutMs) {
  for (;;) {
    if (signalSeen != 0) return false;
    if (runTask()) return true;
    if (!wait(timeoutMs)) return true;
  }
}

void EventLoop::cleanUp(std::chrono::milliseconds limit, const std::function<bool()>& done) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (runTask()) continue;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return;
    wait(static_cast<int>(left.count()));
  }
}

bool EventLoop::runTask() {
  std::function<void()> task;
  {
    const std::lock_guard lock(mMutex);
    if (mTasks.empty()) return false;
    task = std::move(mTasks.front());
    mTasks.pop_front();
  }
  task();
  return true;
}

bool EventLoop::wait(int timeoutMs) {
  pollfd event{mWakeup.get(), POLLIN, 0};
  if (::poll(&event, 1, timeoutMs) == 0) return false;
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = ::read(mWakeup.get(), &count, sizeof count);
  return true;
}

void EventLoop::catchSignals() {
  signalWakeup = mWakeup.get();
  struct sigaction action {};
  action.sa_handler = onSignal;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction before {};
    ::sigaction(number, nullptr, &before);
    if (before.sa_handler != SIG_IGN) ::sigaction(number, &action, nullptr);
  }
}

int EventLoop::signal() const { return signalSeen; }

}  // namespace zor::client::cli
