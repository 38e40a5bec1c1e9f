#include "host/descriptors.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "support/unique_fd.h"

namespace zor::host {
namespace {

// Without the call of younger kernels.
void closeListed(std::span<const int> kept) {
  std::vector<int> open;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    open.push_back(std::atoi(entry.path().filename().c_str()));
  }
  for (const int fd : open) {
    if (fd > STDERR_FILENO && std::find(kept.begin(), kept.end(), fd) == kept.end()) ::close(fd);
  }
}

}  // namespace

void closeAllBut(std::span<const int> kept) {
  std::vector<int> sorted(kept.begin(), kept.end());
  std::sort(sorted.begin(), sorted.end());
  sorted.push_back(-1);
  unsigned first = STDERR_FILENO + 1;
  for (const int fd : sorted) {
    const unsigned last = fd < 0 ? ~0U : static_cast<unsigned>(fd) - 1;
    if (first <= last && ::syscall(SYS_close_range, first, last, 0) != 0) return closeListed(kept);
    first = static_cast<unsigned>(fd) + 1;
  }
}

void dropInheritedDescriptors() {
  closeAllBut({});
  const UniqueFd nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!nothing || ::dup2(nothing.get(), STDIN_FILENO) < 0) {
    throw std::system_error(errno, std::generic_category(), "/dev/null");
  }
  // A terminal is open for reading and writing through each of its descriptors. Where it may
  // not be opened anew (as after su) it stays as it is.
  for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
    if (::isatty(fd) == 0) continue;
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    const UniqueFd output(::open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
    if (output) ::dup2(output.get(), fd);
  }
}

}  // namespace zor::host
