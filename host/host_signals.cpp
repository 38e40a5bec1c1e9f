#include "host/host_signals.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>

namespace zor::host {
namespace {

constexpr std::array kEnding = {SIGINT, SIGTERM, SIGHUP};

// A handler knows nothing else.
std::atomic<int> gEnd{0};
std::atomic<bool> gReport{false};
std::atomic<int> gAsked{-1};

extern "C" void onSignal(int signal) {
  const int error = errno;
  if (signal == SIGUSR1) {
    gReport.store(true);
  } else if (int none = 0; !gEnd.compare_exchange_strong(none, signal)) {
    ::_exit(1);
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(gAsked.load(), &one, sizeof one);
  errno = error;
}

UniqueFd makeEvent(int flags) {
  UniqueFd event(::eventfd(0, EFD_CLOEXEC | flags));
  if (!event) throw std::system_error(errno, std::generic_category(), "cannot await signals");
  return event;
}

bool ignored(int signal) noexcept {
  struct sigaction old {};
  return ::sigaction(signal, nullptr, &old) == 0 && old.sa_handler == SIG_IGN;
}

void handle(int signal, void (*handler)(int)) noexcept {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  ::sigaction(signal, &action, nullptr);
}

void setMask(int how) noexcept {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : kEnding) ::sigaddset(&signals, signal);
  ::sigaddset(&signals, SIGUSR1);
  ::pthread_sigmask(how, &signals, nullptr);
}

}  // namespace

HostSignals::HostSignals() : mStop(makeEvent(0)) {
  gEnd = 0;
  gReport = false;
  gAsked = makeEvent(EFD_NONBLOCK).release();
  for (const int signal : kEnding) {
    if (signal != SIGHUP || !ignored(SIGHUP)) handle(signal, onSignal);
  }
  handle(SIGUSR1, onSignal);
  handle(SIGUSR2, SIG_IGN);
}

HostSignals::~HostSignals() {
  if (mThread) {
    const std::uint64_t one = 1;
    retryOnInterrupt([&] { return ::write(mStop.get(), &one, sizeof one); });
    mThread->join();
    setMask(SIG_UNBLOCK);
  }
  UniqueFd(gAsked.exchange(-1)).reset();
}

void HostSignals::attend() {
  mThread.emplace([stop = mStop.get()] {
    pollfd end{stop, POLLIN, 0};
    while (::poll(&end, 1, -1) < 0) {  // a signal interrupts it; only the object's end ends it
    }
  });
  setMask(SIG_BLOCK);
}

int HostSignals::fd() const noexcept { return gAsked.load(); }

HostSignals::Asked HostSignals::take() noexcept {
  std::uint64_t count = 0;
  retryOnInterrupt([&] { return ::read(fd(), &count, sizeof count); });
  return {gEnd.load(), gReport.exchange(false)};
}

}  // namespace zor::host
