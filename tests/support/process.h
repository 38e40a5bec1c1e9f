// Programs that tests run.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace zor::test {

using Arguments = std::vector<std::string>;

/// Waits until `condition` holds; false after twenty seconds.
template <class Condition>
bool eventually(Condition condition) {
  for (int i = 0; i < 4000 && !condition(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return condition();
}

/// Starts a program, found on PATH, with its output going to files.
inline pid_t spawn(const Arguments& arguments, const std::string& out, const std::string& err) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t pid = -1;
  ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

/// The exit code, or minus the signal.
inline int waitFor(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace zor::test
