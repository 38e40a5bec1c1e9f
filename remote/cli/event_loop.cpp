#include "event_loop.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace zor::remote::cli {

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
  signalSeen = number;
  wake(signalWakeup);
  errno = saved;
}

}  // namespace

EventLoop::EventLoop() : mWakeup(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!mWakeup) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void EventLoop::post(std::function<void()> task) {
  const std::lock_guard lock(mMutex);
  mTasks.push_back(std::move(task));
  if (mTasks.size() == 1) wake(mWakeup.get());
}

bool EventLoop::runOne(int timeoutMs) {
  for (;;) {
    if (signalSeen != 0) return false;
    std::function<void()> task;
    {
      const std::lock_guard lock(mMutex);
      if (!mTasks.empty()) {
        task = std::move(mTasks.front());
        mTasks.pop_front();
      }
    }
    if (task) {
      task();
      return true;
    }
    pollfd event{mWakeup.get(), POLLIN, 0};
    if (::poll(&event, 1, timeoutMs) == 0) return true;
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(mWakeup.get(), &count, sizeof count);
  }
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

}  // namespace zor::remote::cli
