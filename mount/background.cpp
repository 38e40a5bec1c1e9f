#include "mount/background.h"

#include <fcntl.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>

#include "mount/messages.h"

namespace zor::client::mount {
namespace {

constexpr int kNotStarted = 1;

int waitForChild(pid_t child, const UniqueFd& outcome) {
  unsigned char code = 0;
  const ssize_t count = retryOnInterrupt([&] { return ::read(outcome.get(), &code, 1); });
  if (count == 1) return code;
  int status = 0;
  if (retryOnInterrupt([&] { return ::waitpid(child, &status, 0); }) < 0) return kNotStarted;
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0) return WEXITSTATUS(status);
  report("ended unexpectedly before the drive was mounted");
  return kNotStarted;
}

}  // namespace

std::optional<int> Background::enter() {
  std::array<int, 2> ends{-1, -1};
  const bool piped = ::pipe2(ends.data(), O_CLOEXEC) == 0;
  const UniqueFd outcome(ends[0]);
  mParent = UniqueFd(ends[1]);
  std::fflush(nullptr);
  const pid_t child = piped ? ::fork() : -1;
  if (child < 0) {
    report("cannot go to the background; -f avoids it");
    return kNotStarted;
  }
  if (child == 0) return std::nullopt;
  mParent.reset();
  return waitForChild(child, outcome);
}

bool Background::ready() {
  if (!mParent) return true;
  ::setsid();  // cannot fail: a child leads no group
  const UniqueFd nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!nothing || ::chdir("/") != 0) return false;
  useSystemLog();
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) ::dup2(nothing.get(), fd);
  return sendToParent(0);
}

void Background::failed(int code) {
  if (mParent) sendToParent(code);
}

bool Background::sendToParent(int code) {
  const auto byte = static_cast<unsigned char>(code);
  const ssize_t count = retryOnInterrupt([&] { return ::write(mParent.get(), &byte, 1); });
  mParent.reset();
  return count == 1;
}

}  // namespace zor::client::mount
