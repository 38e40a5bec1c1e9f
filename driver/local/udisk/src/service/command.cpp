#include "command.h"

#include <glib.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>

#include "morvel_log.h"
#include "support/unique_fd.h"

namespace zor {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How long it may take to notice that a program ended whose output is still open.
constexpr milliseconds kTick{20};

// Runs in the child. A group of its own, to be killed as one. A signal that the
// host holds back for the moment must not stay blocked in a file-system daemon
// that mount starts.
void setUpChild(void* collectsErrors) {
  ::setpgid(0, 0);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  if (collectsErrors != nullptr) ::dup2(STDOUT_FILENO, STDERR_FILENO);
}

/// A program that runs. It is not reaped before it is waited for, so that its
/// number, and that of its group, stay its own.
class Child {
 public:
  Child(pid_t id, int output, const std::string& command, const CommandOptions& options)
      : mId(id), mOutput(output), mCommand(command), mOptions(options) {}

  void await(CommandResult& result) {
    bool ended = false;
    for (; !ended || (mOutputOpen && hasTimeLimit()); ended = hasEnded()) {
      report();
      if (hasTimeLimit() && passed() >= milliseconds(mOptions.timeoutMs)) {
        ::kill(-mId, SIGKILL);
        break;
      }
      read(result.output, kTick);
    }
    // What the program itself wrote is there; what it left running may go on writing.
    while (mOutputOpen && read(result.output, milliseconds(0))) {
    }
    retryOnInterrupt([&] { return ::waitpid(mId, &result.exitStatus, 0); });
  }

 private:
  bool hasTimeLimit() const noexcept { return mOptions.timeoutMs != kNoTimeLimit; }
  Clock::duration passed() const { return Clock::now() - mBegin; }

  bool hasEnded() const {
    siginfo_t info{};
    const auto id = static_cast<id_t>(mId);
    return ::waitid(P_PID, id, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == mId;
  }

  void report() {
    if (hasTimeLimit() || passed() < mReports * milliseconds(mOptions.reportMs)) return;
    ++mReports;
    MORVEL_ERROR(
        "still waiting for: %s (%d seconds)", mCommand.c_str(),
        static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(passed()).count()));
  }

  // Whether there was output within `patience`.
  bool read(std::string& output, milliseconds patience) {
    pollfd ready{mOutput.get(), POLLIN, 0};
    if (::poll(mOutputOpen ? &ready : nullptr, mOutputOpen ? 1 : 0,
               static_cast<int>(patience.count())) <= 0) {
      return false;
    }
    char buffer[4096];
    const ssize_t count =
        retryOnInterrupt([&] { return ::read(mOutput.get(), buffer, sizeof buffer); });
    mOutputOpen = count > 0;
    if (count <= 0) return false;
    output.append(buffer,
                  std::min(static_cast<std::size_t>(count), mOptions.maxOutput - output.size()));
    return true;
  }

  const pid_t mId;
  const UniqueFd mOutput;
  const std::string& mCommand;
  const CommandOptions& mOptions;
  const Clock::time_point mBegin = Clock::now();
  bool mOutputOpen = true;
  int mReports = 1;
};

// GLib would take the current directory for a part of a PATH that is not set.
std::unique_ptr<char*, void (*)(char**)> environment() {
  char** all = g_get_environ();
  if (std::getenv("PATH") == nullptr) {
    all = g_environ_setenv(all, "PATH", "/usr/sbin:/usr/bin:/sbin:/bin", TRUE);
  }
  return {all, g_strfreev};
}

}  // namespace

CommandResult runCommand(const std::vector<std::string>& arguments, const CommandOptions& options) {
  std::vector<char*> argv;
  std::string command;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
    command += (command.empty() ? "" : " ") + argument;
  }
  argv.push_back(nullptr);

  CommandResult result;
  GPid child = 0;
  int output = -1;
  int flags = G_SPAWN_SEARCH_PATH_FROM_ENVP | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_CLOEXEC_PIPES;
  if (options.errors == ErrorOutput::kDropped) flags |= G_SPAWN_STDERR_TO_DEV_NULL;
  bool collects = options.errors == ErrorOutput::kCollected;
  if (!g_spawn_async_with_pipes(
          nullptr, argv.data(), environment().get(), static_cast<GSpawnFlags>(flags), setUpChild,
          collects ? &collects : nullptr, &child, nullptr, &output, nullptr, nullptr)) {
    return result;
  }
  result.started = true;
  Child(child, output, command, options).await(result);
  return result;
}

}  // namespace zor
