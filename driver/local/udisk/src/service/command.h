// Running of the system's small tools, without a shell.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zor {

struct CommandResult {
  bool started = false;
  int exitStatus = -1;  ///< as waitpid reports it: 0 means success
  std::string output;   ///< of the standard output, cut at the limit

  bool succeeded() const noexcept { return started && exitStatus == 0; }
};

struct CommandOptions {
  int timeoutMs = 30'000;            ///< afterwards the program is killed
  std::size_t maxOutput = 1U << 20;  ///< the rest of the output is read and dropped
  bool showErrors = true;            ///< false: the program's standard error goes nowhere
};

/// Runs a program that is looked up on PATH, with exactly these arguments and
/// only the descriptors 0 to 2, and waits for its end. Nothing of the
/// arguments is interpreted on the way.
CommandResult runCommand(const std::vector<std::string>& arguments,
                         const CommandOptions& options = {});

}  // namespace zor
