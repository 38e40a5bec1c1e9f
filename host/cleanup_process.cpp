#include "host/cleanup_process.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "host/descriptors.h"
#include "host/signals_blocked.h"

namespace zor::host {
namespace {

constexpr std::size_t kMaxFailure = 1024;

std::string failureOf(const std::function<void()>& step) {
  try {
    step();
    return "";
  } catch (const std::exception& error) {
    return std::string(error.what()).substr(0, kMaxFailure);
  }
}

// Each answer is one message: a byte, and the text of a failure behind it.
[[noreturn]] void attend(int end, CleanupProcess::Steps steps) noexcept {
  for (unsigned char step = 0;
       retryOnInterrupt([&] { return ::recv(end, &step, sizeof step, 0); }) == sizeof step;) {
    if (step >= steps.size() || !steps[step]) break;
    const std::string answer = "." + failureOf(steps[step]);
    steps[step] = nullptr;
    ::send(end, answer.data(), answer.size(), MSG_NOSIGNAL);
  }
  ::_exit(0);
}

}  // namespace

CleanupProcess::CleanupProcess(Steps steps, std::span<const int> kept) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot make a pair of sockets");
  }
  mEnd = UniqueFd(ends[0]);
  const UniqueFd other(ends[1]);
  const SignalsBlocked blocked;  // until they are ignored
  mProcess = ::fork();
  if (mProcess < 0) throw std::system_error(errno, std::generic_category(), "cannot fork");
  if (mProcess > 0) return;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) {
    ::signal(signal, SIG_IGN);
  }
  ::prctl(PR_SET_NAME, "udisk-cleanup");
  try {
    // The other copies of what is closed here are the parent's to use and to close.
    std::vector<int> own(kept.begin(), kept.end());
    own.push_back(other.get());
    closeAllBut(own);
  } catch (...) {
    ::_exit(1);
  }
  attend(other.get(), std::move(steps));
}

CleanupProcess::~CleanupProcess() {
  mEnd.reset();
  retryOnInterrupt([&] { return ::waitpid(mProcess, nullptr, 0); });
}

void CleanupProcess::run(std::size_t step) {
  const auto number = static_cast<unsigned char>(step);
  char answer[1 + kMaxFailure];
  ssize_t size = ::send(mEnd.get(), &number, sizeof number, MSG_NOSIGNAL);
  if (size > 0) {
    size = retryOnInterrupt([&] { return ::recv(mEnd.get(), answer, sizeof answer, 0); });
  }
  if (size <= 0) throw std::runtime_error("the process that cleans up is gone");
  if (size > 1)
    throw std::runtime_error(std::string(answer + 1, static_cast<std::size_t>(size) - 1));
}

}  // namespace zor::host
