// An open file descriptor with one owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace zor::remote {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) noexcept : mFd(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      reset();
      mFd = std::exchange(other.mFd, -1);
    }
    return *this;
  }
  ~FileDescriptor() { reset(); }

  int get() const noexcept { return mFd; }
  explicit operator bool() const noexcept { return mFd >= 0; }

  void reset() noexcept {
    if (mFd >= 0) ::close(mFd);
    mFd = -1;
  }

 private:
  int mFd = -1;
};

}  // namespace zor::remote
