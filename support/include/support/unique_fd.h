// An owned file descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace zor {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) noexcept : mFd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : mFd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    UniqueFd old(std::exchange(mFd, other.release()));
    return *this;
  }
  /// Leaves errno as it is, so that a failing function can return freely.
  ~UniqueFd() {
    if (mFd < 0) return;
    const int saved = errno;
    ::close(mFd);
    errno = saved;
  }

  int get() const noexcept { return mFd; }
  explicit operator bool() const noexcept { return mFd >= 0; }
  int release() noexcept { return std::exchange(mFd, -1); }
  void reset() noexcept { *this = UniqueFd(); }

 private:
  int mFd = -1;
};

/// Makes a system call again for as long as a signal interrupts it.
template <class Call>
auto retryOnInterrupt(Call call) noexcept {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

}  // namespace zor
