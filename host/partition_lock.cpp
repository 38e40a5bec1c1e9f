#include "host/partition_lock.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "service/mount_table.h"
#include "support/printable.h"

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

UniqueFd openLock(dev_t partition) {
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
  return lock;
}

bool tryLock(const UniqueFd& lock, int kind) {
  return retryOnInterrupt([&] { return ::flock(lock.get(), kind | LOCK_NB); }) == 0;
}

// The device that `directory` is on; 0 without one. Some file systems have a number of their own,
// so the mount's source counts first.
dev_t blockDeviceBelow(const std::string& directory) {
  std::filesystem::path top = directory;
  std::optional<Mount> mount;
  while (!(mount = mountAt(top.string())) && top.has_relative_path()) top = top.parent_path();
  struct stat status {};
  if (mount && ::stat(mount->source.c_str(), &status) == 0 && S_ISBLK(status.st_mode)) {
    return status.st_rdev;
  }
  return ::stat(directory.c_str(), &status) == 0 && major(status.st_dev) != 0 ? status.st_dev : 0;
}

}  // namespace

UniqueFd lockPartition(dev_t partition) {
  UniqueFd lock = openLock(partition);
  if (!tryLock(lock, LOCK_EX)) throw std::runtime_error("another udisk-host serves it");
  return lock;
}

UniqueFd sharePartition(const std::string& directory) try {
  const dev_t partition = ::geteuid() == 0 ? blockDeviceBelow(directory) : 0;
  UniqueFd lock = partition != 0 ? openLock(partition) : UniqueFd();
  if (lock && !tryLock(lock, LOCK_SH)) lock.reset();
  return lock;
} catch (const std::runtime_error& error) {
  spdlog::debug("{} is not locked: {}", printable(directory), error.what());
  return {};
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
