#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "program.h"

namespace {

constexpr int kFailure = 1;

// A descriptor below 3 that is closed would be given to a socket, and a line
// on standard output would then end up in the packet stream.
void keepStandardDescriptors() {
  for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) == -1 && ::open("/dev/null", O_RDWR) < 0) ::_exit(kFailure);
  }
}

// Packets come and go all the time: memory that was given back to the system
// after each of them would have to be faulted in again for the next. It goes back
// when the remote has gone.
void keepFreedMemory() noexcept {
  constexpr int kLargestKept = 4 << 20, kKept = 16 << 20;
  ::mallopt(M_MMAP_THRESHOLD, kLargestKept);
  ::mallopt(M_TRIM_THRESHOLD, kKept);
}

}  // namespace

int main(int argc, char** argv) {
  keepStandardDescriptors();
  keepFreedMemory();
  try {
    return zor::host::runProgram(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "udisk-host: %s\n", error.what());
    return kFailure;
  }
}
