// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <utility>

namespace zor::host {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) noexcept : mFd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    UniqueFd old(std::exchange(mFd, std::exchange(other.mFd, -1)));
    return *this;
  }
  ~UniqueFd() {
    if (mFd >= 0) ::close(mFd);
  }

  int get() const noexcept { return mFd; }
  explicit operator bool() const noexcept { return mFd >= 0; }

 private:
  int mFd = -1;
};

}  // namespace zor::host
