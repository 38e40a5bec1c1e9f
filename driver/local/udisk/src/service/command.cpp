#include "command.h"

#include <glib.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "support/unique_fd.h"

namespace zor {
namespace {

using Clock = std::chrono::steady_clock;

int millisecondsUntil(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<std::int64_t>(left, 0));
}

// False when the deadline passed before the end of the output.
bool readOutput(int fd, std::size_t limit, Clock::time_point deadline, std::string& output) {
  char buffer[4096];
  while (true) {
    pollfd ready{fd, POLLIN, 0};
    const int polled = ::poll(&ready, 1, millisecondsUntil(deadline));
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return false;
    const ssize_t count = retryOnInterrupt([&] { return ::read(fd, buffer, sizeof buffer); });
    if (count <= 0) return count == 0;
    output.append(buffer, std::min(static_cast<std::size_t>(count), limit - output.size()));
  }
}

// Runs in the child: a signal that the host holds back for the moment must not
// stay blocked in a file-system daemon that mount starts.
void unblockSignals(void* /*data*/) {
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// A program may close its output and go on; it gets the time that is left.
bool waitUntil(pid_t child, Clock::time_point deadline, int& status) {
  while (true) {
    const pid_t ended = ::waitpid(child, &status, WNOHANG);
    if (ended == child || (ended < 0 && errno != EINTR)) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

}  // namespace

CommandResult runCommand(const std::vector<std::string>& arguments, const CommandOptions& options) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  CommandResult result;
  const auto deadline = Clock::now() + std::chrono::milliseconds(options.timeoutMs);
  GPid child = 0;
  int outputFd = -1;
  int flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_CLOEXEC_PIPES;
  if (!options.showErrors) flags |= G_SPAWN_STDERR_TO_DEV_NULL;
  if (!g_spawn_async_with_pipes(nullptr, argv.data(), nullptr, static_cast<GSpawnFlags>(flags),
                                unblockSignals, nullptr, &child, nullptr, &outputFd, nullptr,
                                nullptr)) {
    return result;
  }
  result.started = true;
  const UniqueFd output(outputFd);
  const bool ended = readOutput(output.get(), options.maxOutput, deadline, result.output) &&
                     waitUntil(child, deadline, result.exitStatus);
  if (!ended) {
    ::kill(child, SIGKILL);
    retryOnInterrupt([&] { return ::waitpid(child, &result.exitStatus, 0); });
  }
  g_spawn_close_pid(child);
  return result;
}

}  // namespace zor
