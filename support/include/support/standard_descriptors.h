// Descriptors 0 to 2, which a caller may have closed.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace zor {

/// Opens /dev/null in place of each closed standard descriptor, the input for
/// reading and the others for writing; ends the process with code 1 where that is
/// impossible. To be called first in `main`: a socket or file that took such a
/// number would get what is printed. They are inherited by programs, as those that
/// were open are.
inline void fillStandardDescriptors() noexcept {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) != -1) continue;
    // Those below are open, so this one gets the lowest free number, which is `fd`.
    if (::open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY) != fd) ::_exit(1);
  }
}

}  // namespace zor
