#include <malloc.h>

#include <exception>

#include "host/descriptors.h"
#include "host/host_program.h"
#include "host/log_sink.h"
#include "support/standard_descriptors.h"

namespace {

constexpr int kFailure = 1;

// Packets come and go all the time: memory that was given back to the system
// after each of them would have to be faulted in again for the next. It goes back
// when the client has gone. Each arena keeps some, so that there are only two.
void keepFreedMemory() noexcept {
  ::mallopt(M_ARENA_MAX, 2);
  constexpr int kMaxKept = 4 << 20, kKept = 16 << 20;
  ::mallopt(M_MMAP_THRESHOLD, kMaxKept);
  ::mallopt(M_TRIM_THRESHOLD, kKept);
}

}  // namespace

int main(int argc, char** argv) {
  zor::fillStandardDescriptors();
  keepFreedMemory();
  try {
    zor::host::dropInheritedDescriptors();
    return zor::host::runProgram(argc, argv);
  } catch (const std::exception& error) {
    zor::host::printFailure(error.what());
    return kFailure;
  }
}
