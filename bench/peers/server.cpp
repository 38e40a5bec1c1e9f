#include "server.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>

namespace zor::bench {

Server::Server(const std::vector<std::string>& command, const UniqueFd& stream,
               const std::filesystem::path& log)
    : mLog(log) {
  std::vector<char*> argv;
  for (const std::string& argument : command) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  for (const int number : {STDIN_FILENO, STDOUT_FILENO}) {
    if (stream) {
      ::posix_spawn_file_actions_adddup2(&actions, stream.get(), number);
    } else {
      ::posix_spawn_file_actions_addopen(&actions, number, "/dev/null", O_RDWR, 0);
    }
  }
  ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const int error = ::posix_spawn(&mPid, argv[0], &actions, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), command.front());
}

Server::~Server() {
  ::kill(mPid, SIGTERM);
  for (int i = 0; i < 1000; ++i) {
    if (::waitpid(mPid, nullptr, WNOHANG) != 0) return;
    ::usleep(5000);
  }
  ::kill(mPid, SIGKILL);
  ::waitpid(mPid, nullptr, 0);
}

double Server::processorTime() const {
  clockid_t clock{};
  timespec time{};
  const int error = ::clock_getcpuclockid(mPid, &clock);
  if (error != 0 || ::clock_gettime(clock, &time) != 0) {
    throw std::system_error(error != 0 ? error : errno, std::generic_category(), "processor time");
  }
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

Memory Server::memory() const {
  std::ifstream status("/proc/" + std::to_string(mPid) + "/status");
  Memory memory;
  for (std::string line; std::getline(status, line);) {
    std::istringstream fields(line);
    std::string name;
    std::uint64_t kib = 0;
    fields >> name >> kib;
    if (name == "VmRSS:") memory.resident = kib;
    if (name == "VmHWM:") memory.peak = kib;
    if (name == "RssAnon:") memory.anonymous = kib;
  }
  return memory;
}

void Server::resetPeak() const {
  std::ofstream("/proc/" + std::to_string(mPid) + "/clear_refs") << "5";
}

std::string Server::log() const {
  std::ifstream file(mLog);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool Server::running() const {
  siginfo_t info{};
  return ::waitid(P_PID, static_cast<id_t>(mPid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

}  // namespace zor::bench
