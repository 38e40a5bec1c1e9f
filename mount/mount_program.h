// udisk-mount as a function.
#pragma once

namespace zor::client::mount {

/// Executes the command line and returns the exit code. In the background it returns in
/// both processes: in the caller's and in the child that serves. Failures are thrown as
/// std::exception. To be called once, before there are threads.
int runMount(int argc, char** argv);

}  // namespace zor::client::mount
