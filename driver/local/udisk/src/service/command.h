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

enum class ErrorOutput {
  kInherited,  ///< goes where this process's goes
  kDropped,
  kCollected,  ///< becomes part of the output
};

constexpr int kNoTimeLimit = 0;

struct CommandOptions {
  /// Afterwards the program and all that it started are killed. Without a limit
  /// an error line reports from time to time what is waited for, and the end of the
  /// program itself ends the waiting.
  int timeoutMs = 30'000;
  int reportMs = 10'000;             ///< how often that line is written
  std::size_t maxOutput = 1U << 20;  ///< the rest of the output is read and dropped
  ErrorOutput errors = ErrorOutput::kInherited;
};

/// Runs a program that is looked up on PATH, or in the system's directories where
/// there is no PATH, with exactly these arguments and only the descriptors 0 to 2,
/// and waits for its end. Nothing of the arguments is interpreted on the way.
CommandResult runCommand(const std::vector<std::string>& arguments,
                         const CommandOptions& options = {});

}  // namespace zor
