// udisk-mount as a function.
#pragma once

namespace zor::client::mount {

/// Does what the command line says and returns the exit code, in the background
/// for the process that stays and in the child that serves. Failures are thrown
/// as std::exception. To be called once, before there are threads.
int runProgram(int argc, char** argv);

}  // namespace zor::client::mount
