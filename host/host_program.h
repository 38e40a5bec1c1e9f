// udisk-host as a function.
#pragma once

namespace zor::host {

/// Does what the command line says and returns the exit code. Failures to do
/// it are thrown as std::exception.
int runProgram(int argc, char** argv);

}  // namespace zor::host
