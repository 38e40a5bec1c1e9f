// udisk-remote as a function.
#pragma once

namespace zor::client::cli {

/// Does what the command line says and returns the exit code; ends the process
/// itself when a signal is to be its end.
int runProgram(int argc, char** argv);

}  // namespace zor::client::cli
