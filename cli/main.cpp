// udisk-remote: the client of a redirected disk as a command line.
#include <cstdio>
#include <exception>

#include "cli/command_line.h"
#include "support/standard_descriptors.h"

int main(int argc, char** argv) {
  zor::fillStandardDescriptors();
  try {
    return zor::client::cli::runProgram(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "udisk-remote: %s\n", error.what());
    return 1;
  }
}
