#include "host/served_directory.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "support/printable.h"
#include "support/unique_fd.h"

namespace zor::host {
namespace {

constexpr auto kPeriod = std::chrono::seconds(2);
constexpr unsigned kUniqueMount = 0x4000;  // younger than the headers

UniqueFd openWithoutLinks(const std::string& path) noexcept {
  constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  open_how how{};
  how.flags = kFlags;
  how.resolve = RESOLVE_NO_SYMLINKS;
  UniqueFd fd(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
  // A kernel without it sees a link at the end of the path only.
  if (!fd && errno == ENOSYS) fd = UniqueFd(::open(path.c_str(), kFlags | O_NOFOLLOW));
  return fd;
}

}  // namespace

ServedDirectory::ServedDirectory(std::string path) : mPath(std::move(path)) {
  if (!identify(mIdentity)) {
    throw std::system_error(errno, std::generic_category(), "cannot serve " + printable(mPath));
  }
  const auto device = static_cast<dev_t>(mIdentity.device);
  const std::string entry = "/sys/dev/block/" + std::to_string(gnu_dev_major(device)) + ":" +
                            std::to_string(gnu_dev_minor(device));
  if (::access(entry.c_str(), F_OK) == 0) mDevice = entry;
}

ServedDirectory::~ServedDirectory() { stopWatching(); }

void ServedDirectory::stopWatching() {
  {
    const MutexLock lock(mMutex);
    mStop = true;
  }
  mStopping.notifyOne();
  if (mThread.joinable()) mThread.join();
}

void ServedDirectory::watch() {
  mThread = std::thread([this] {
    const MutexLock lock(mMutex);
    auto next = std::chrono::steady_clock::now() + kPeriod;
    while (!mStop) {
      if (mStopping.waitUntil(mMutex, next)) continue;
      check();
      next = std::chrono::steady_clock::now() + kPeriod;
    }
  });
}

bool ServedDirectory::isThere() {
  const MutexLock lock(mMutex);
  return check();
}

bool ServedDirectory::is(std::uint64_t device, std::uint64_t inode) {
  const MutexLock lock(mMutex);
  return mIdentity.device == device && mIdentity.inode == inode;
}

bool ServedDirectory::identify(Identity& found) const noexcept {
  const UniqueFd fd = openWithoutLinks(mPath);
  struct statx status {};
  if (!fd ||
      ::statx(fd.get(), "", AT_EMPTY_PATH, STATX_INO | STATX_MNT_ID | kUniqueMount, &status) != 0) {
    return false;
  }
  found.device = gnu_dev_makedev(status.stx_dev_major, status.stx_dev_minor);
  found.inode = status.stx_ino;
  found.mount = status.stx_mnt_id;
  found.isMountRoot = (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  return true;
}

bool ServedDirectory::check() {
  Identity found;
  bool same = identify(found) && found.device == mIdentity.device &&
              found.inode == mIdentity.inode && (!mConfined || found.mount == mIdentity.mount);
  if (!same && !mConfined && !mIdentity.isMountRoot && found.isMountRoot) {
    spdlog::info("a disk was mounted at {}: it is served from now on", printable(mPath));
    mIdentity = found;
    mDevice.clear();
    same = true;
  }
  // One that was pulled while it is mounted still shows; its requests fail by themselves.
  const bool there = same && (mDevice.empty() || ::access(mDevice.c_str(), F_OK) == 0);
  if (std::exchange(mThere, there) != there) {
    if (there) {
      spdlog::info("the disk at {} is back", printable(mPath));
    } else if (mConfined) {
      spdlog::error(
          "the disk at {} is gone. If it was mounted again, start the host anew: this one is "
          "confined to what was there (--sandbox=off serves it again)",
          printable(mPath));
    } else {
      spdlog::error("the disk at {} is gone: requests fail", printable(mPath));
    }
  }
  return same;
}

}  // namespace zor::host
