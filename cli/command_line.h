// udisk-remote as a function.
#pragma once

namespace zor::client::cli {

/// Runs the command that the arguments name and returns the exit code. After SIGINT, SIGTERM
/// or SIGHUP it ends the process by that signal instead.
int runProgram(int argc, char** argv);

}  // namespace zor::client::cli
