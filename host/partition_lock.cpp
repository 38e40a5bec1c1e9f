#include "host/partition_lock.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace zor::host {
namespace {

// Root's own, so that nobody else can keep a lock from a host.
constexpr char kDirectory[] = "/run/udisk-host";

UniqueFd openDirectory() {
  ::mkdir(kDirectory, S_IRWXU);
  UniqueFd directory(::open(kDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!directory || ::fstat(directory.get(), &status) != 0) {
    throw std::runtime_error(std::string("cannot use ") + kDirectory + ": " + std::strerror(errno));
  }
  if (status.st_uid != ::geteuid() || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw std::runtime_error(std::string(kDirectory) +
                             " must belong to the user who mounts, with mode 0700");
  }
  return directory;
}

}  // namespace

UniqueFd lockPartition(dev_t partition) {
  const UniqueFd directory = openDirectory();
  const std::string name =
      std::to_string(major(partition)) + ":" + std::to_string(minor(partition));
  // It stays behind, empty: who removed it could remove one that a new host has just locked.
  UniqueFd lock(::openat(directory.get(), name.c_str(),
                         O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  if (!lock) {
    throw std::runtime_error(std::string("cannot open ") + kDirectory + "/" + name + ": " +
                             std::strerror(errno));
  }
  if (retryOnInterrupt([&] { return ::flock(lock.get(), LOCK_EX | LOCK_NB); }) != 0) {
    throw std::runtime_error("another udisk-host serves it");
  }
  return lock;
}

UniqueFd lockMounting() {
  UniqueFd directory = openDirectory();
  if (::flock(directory.get(), LOCK_EX | LOCK_NB) == 0) return directory;
  spdlog::info("waiting for another udisk-host that is mounting a partition");
  if (retryOnInterrupt([&] { return ::flock(directory.get(), LOCK_EX); }) != 0) {
    throw std::runtime_error(std::string("cannot lock ") + kDirectory + ": " +
                             std::strerror(errno));
  }
  return directory;
}

}  // namespace zor::host
