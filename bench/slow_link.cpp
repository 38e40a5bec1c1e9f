// slow-link: puts a delay between a client and its server.
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "support/delay_relay.h"
#include "support/standard_descriptors.h"

namespace {

using zor::UniqueFd;
using zor::test::DelayRelay;

constexpr int kUsage = 2;

constexpr const char* kHelp =
    "Usage: slow-link [--delay MS] --listen SOCKET --connect SOCKET\n"
    "       slow-link [--delay MS] --exec COMMAND [ARGUMENT]...\n"
    "Passes bytes on in both directions, each MS milliseconds late (20 by default):\n"
    "between connections to one Unix socket and another one, until SIGTERM or SIGINT;\n"
    "or between its own standard input and output and those of COMMAND.\n";

struct Arguments {
  std::chrono::milliseconds delay{20};
  std::string listen;
  std::string connect;
  char** command = nullptr;
};

std::optional<Arguments> parse(char** argument) {
  Arguments parsed;
  for (++argument; *argument != nullptr; ++argument) {
    const std::string_view name = *argument;
    const char* value = *++argument;
    if (value == nullptr) return std::nullopt;
    if (name == "--exec") {
      parsed.command = argument;
      break;
    }
    if (name == "--listen") {
      parsed.listen = value;
    } else if (name == "--connect") {
      parsed.connect = value;
    } else if (name == "--delay") {
      unsigned delay = 0;
      const char* end = value + std::strlen(value);
      if (const auto [rest, error] = std::from_chars(value, end, delay);
          error != std::errc() || rest != end) {
        return std::nullopt;
      }
      parsed.delay = std::chrono::milliseconds(delay);
    } else {
      return std::nullopt;
    }
  }
  const bool sockets = !parsed.listen.empty() && !parsed.connect.empty();
  const bool none = parsed.listen.empty() && parsed.connect.empty();
  if (parsed.command != nullptr ? !none : !sockets) return std::nullopt;
  return parsed;
}

[[noreturn]] void fail(int number, const char* what) {
  throw std::system_error(number, std::generic_category(), what);
}

UniqueFd duplicate(int fd) {
  UniqueFd copy(::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!copy) fail(errno, "standard input and output");
  return copy;
}

int relayCommand(const Arguments& arguments) {
  std::array<int, 2> pair{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) {
    fail(errno, "socketpair");
  }
  UniqueFd ours(pair[0]);
  UniqueFd theirs(pair[1]);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, theirs.get(), STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, theirs.get(), STDOUT_FILENO);
  pid_t child = 0;
  const int error =
      ::posix_spawnp(&child, arguments.command[0], &actions, nullptr, arguments.command, environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) fail(error, arguments.command[0]);
  theirs.reset();
  {
    DelayRelay relay(arguments.delay);
    UniqueFd oursToo = duplicate(ours.get());
    relay.add({duplicate(STDIN_FILENO), duplicate(STDOUT_FILENO)},
              {std::move(oursToo), std::move(ours)});
    // Nothing but the relay holds them: their ends show at the other side.
    ::close(STDIN_FILENO);
    ::close(STDOUT_FILENO);
    relay.waitUntilIdle();
  }
  int status = 0;
  zor::retryOnInterrupt([&] { return ::waitpid(child, &status, 0); });
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int relaySocket(const Arguments& arguments) {
  sigset_t ends;
  ::sigemptyset(&ends);
  ::sigaddset(&ends, SIGTERM);
  ::sigaddset(&ends, SIGINT);
  ::pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  const DelayRelay relay(arguments.listen, arguments.connect, arguments.delay);
  int signal = 0;
  ::sigwait(&ends, &signal);
  return 0;
}

}  // namespace

int main(int, char** argv) {
  zor::fillStandardDescriptors();
  const std::optional<Arguments> arguments = parse(argv);
  if (!arguments) {
    std::fputs(kHelp, stderr);
    return kUsage;
  }
  try {
    return arguments->command != nullptr ? relayCommand(*arguments) : relaySocket(*arguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "slow-link: %s\n", error.what());
    return 1;
  }
}
