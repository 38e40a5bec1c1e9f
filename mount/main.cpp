// udisk-mount: the disk that a host serves as a drive.
#include <exception>

#include "mount/messages.h"
#include "mount/mount_program.h"
#include "support/standard_descriptors.h"

int main(int argc, char** argv) {
  zor::fillStandardDescriptors();
  try {
    return zor::client::mount::runMount(argc, argv);
  } catch (const std::exception& error) {
    zor::client::mount::report(error.what());
    return 1;
  }
}
