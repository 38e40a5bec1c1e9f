#include "disk_root.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <vector>

namespace zor {
namespace {

std::atomic<bool> gComponentWalk{false};

// A rename anywhere on the disk makes the kernel give up on a path with
// dot-dot; it returns EAGAIN, and after so many tries the peer gets a failure.
constexpr int kRaceRetries = 128;

int openResolving(int rootFd, const char* path, int flags, mode_t mode,
                  std::uint64_t resolve) noexcept {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags);
  how.mode = mode;
  how.resolve = resolve;
  long fd = -1;
  for (int attempt = 0; attempt < kRaceRetries; ++attempt) {
    fd = ::syscall(SYS_openat2, rootFd, path, &how, sizeof how);
    if (fd >= 0 || (errno != EAGAIN && errno != EINTR)) break;
  }
  return static_cast<int>(fd);
}

int openBeneath(int rootFd, const char* path, int flags, mode_t mode) noexcept {
  return openResolving(rootFd, path, flags, mode, RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS);
}

// One call reports both. Where the kernel does not know it, a mount shows only when its
// file system is not the one around it.
bool identify(int fd, MountIdentity& identity) noexcept {
  struct statx all {};
  if (::statx(fd, "", AT_EMPTY_PATH, STATX_INO, &all) == 0 &&
      (all.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
    identity = {{makedev(all.stx_dev_major, all.stx_dev_minor), all.stx_ino},
                (all.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0};
    return true;
  }
  struct stat status {
  }, around{};
  if (::fstat(fd, &status) != 0) return false;
  identity = {{status.st_dev, status.st_ino},
              ::fstatat(fd, "..", &around, 0) == 0 && around.st_dev != status.st_dev};
  return true;
}

bool noOpenat2(int error) noexcept { return error == ENOSYS || error == EPERM; }

}  // namespace

DiskRoot::DiskRoot(const char* mountPoint) : mMountPointLength(std::strlen(mountPoint)) {
  if (mMountPointLength == 0 || mMountPointLength >= sizeof mMountPoint) {
    mError = mMountPointLength == 0 ? ENODEV : ENAMETOOLONG;
    mMountPointLength = 0;
    return;
  }
  std::memcpy(mMountPoint, mountPoint, mMountPointLength);
  mFd = UniqueFd(::open(mountPoint, O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!mFd || !identify(mFd.get(), mIdentity)) mError = errno;
}

bool DiskRoot::isReachedWithoutLinks() const noexcept {
  MountIdentity found;
  const UniqueFd fd(openResolving(AT_FDCWD, mMountPoint, O_PATH | O_DIRECTORY | O_CLOEXEC, 0,
                                  RESOLVE_NO_SYMLINKS));
  return fd && identify(fd.get(), found) && found.file == mIdentity.file;
}

void DiskRoot::forceComponentWalk(bool forced) noexcept { gComponentWalk.store(forced); }

int DiskRoot::checkText(std::string_view remotePath) const noexcept {
  if (remotePath.size() >= PATH_MAX - mMountPointLength) return ENAMETOOLONG;
  const bool separated =
      remotePath.empty() || remotePath.front() == '/' || mMountPoint[mMountPointLength - 1] == '/';
  return separated ? 0 : EXDEV;
}

UniqueFd DiskRoot::open(const char* path, int flags, mode_t mode) const {
  flags |= O_CLOEXEC;  // openat2 refuses flags that make no sense, such as O_NOCTTY with O_PATH
  if (!gComponentWalk.load(std::memory_order_relaxed)) {
    UniqueFd fd(openBeneath(mFd.get(), path, flags, mode));
    if (fd || !noOpenat2(errno)) return fd;
    // EPERM may also be the answer of a file; only a filter that knows nothing
    // of openat2 refuses the root itself.
    const int refusal = errno;
    if (UniqueFd(openBeneath(mFd.get(), ".", O_PATH | O_CLOEXEC, 0))) {
      errno = refusal;
      return fd;
    }
    gComponentWalk.store(true);
  }
  return walk(path, flags, mode);
}

UniqueFd DiskRoot::walk(const char* path, int flags, mode_t mode) const {
  // The directories from the root downwards: dot-dot goes back to the one that
  // was really come through, never to what the file system names so now.
  std::vector<UniqueFd> stack;
  const auto top = [&] { return stack.empty() ? mFd.get() : stack.back().get(); };
  std::string_view rest = path;
  while (true) {
    const std::size_t slash = rest.find('/');
    const std::string name(rest.substr(0, slash));
    const std::size_t next =
        slash == std::string_view::npos ? slash : rest.find_first_not_of('/', slash);
    const bool last = next == std::string_view::npos;
    if (name == "..") {
      if (stack.empty()) {
        errno = EXDEV;
        return {};
      }
      stack.pop_back();
    } else if (!name.empty() && name != ".") {
      if (last) {
        const int slashFlag = slash == std::string_view::npos ? 0 : O_DIRECTORY;
        UniqueFd fd(::openat(top(), name.c_str(), flags | slashFlag | O_NOFOLLOW, mode));
        struct stat status {};
        if (fd && (flags & (O_PATH | O_NOFOLLOW)) == O_PATH && ::fstat(fd.get(), &status) == 0 &&
            S_ISLNK(status.st_mode)) {
          errno = ELOOP;
          return {};
        }
        return fd;
      }
      UniqueFd fd(::openat(top(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (!fd) return {};
      stack.push_back(std::move(fd));
    }
    if (last) return UniqueFd(::openat(top(), ".", flags & ~(O_CREAT | O_EXCL)));
    rest.remove_prefix(next);
  }
}

void DiskRoot::forgetOpened() noexcept {
  for (Parent& known : mParents) known.fd.reset();
  for (HeldFile& file : mHeld) file.forget();
}

int DiskRoot::openParent(std::string_view parent) {
  if (parent.empty() || parent == ".") return mFd.get();
  for (std::size_t i = 0; i < mParents.size(); ++i) {
    const Parent& known = mParents[i];
    if (!known.fd || known.path != parent) continue;
    mNextParent = (i + 1) % mParents.size();  // this one is in use from now on
    return known.fd.get();
  }
  Parent& slot = mParents[mNextParent];
  mNextParent = (mNextParent + 1) % mParents.size();
  slot.path = parent;
  slot.fd = open(slot.path.c_str(), O_PATH | O_DIRECTORY);
  return slot.fd.get();
}

Location::Location(DiskRoot& root, std::string_view remotePath) noexcept
    : mRoot(&root), mGiven(remotePath), mPath(mText), mError(root.error()) {
  mText[0] = '\0';
  if (mError == 0) mError = root.checkText(remotePath);
  if (mError != 0) return;
  remotePath.remove_prefix(std::min(remotePath.find_first_not_of('/'), remotePath.size()));
  const std::size_t end = remotePath.find_last_not_of('/');
  mDirectoryOnly = end != std::string_view::npos && end + 1 < remotePath.size();
  remotePath = remotePath.substr(0, end == std::string_view::npos ? 0 : end + 1);
  if (remotePath.empty()) remotePath = ".";
  std::memcpy(mText, remotePath.data(), remotePath.size());
  mText[remotePath.size()] = '\0';
}

LogText Location::localPath() const noexcept {
  return confined() ? mRoot->localPath(mGiven) : LogText(mGiven);
}

Location::Entry Location::wholeAsDirectory() const { return {mRoot->openParent(mPath), "."}; }

Location::Entry Location::entry() const {
  if (mError != 0) {
    errno = mError;
    return {-1, ""};
  }
  if (!confined()) return {AT_FDCWD, mPath};
  const std::string_view path = mPath;
  const std::size_t slash = path.rfind('/');
  const char* name = slash == std::string_view::npos ? mPath : mPath + slash + 1;
  // These two would name the directory above or the directory itself to the
  // *at calls, so the kernel is asked for the directory they stand for.
  if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return wholeAsDirectory();

  const int dirFd = mRoot->openParent(slash == std::string_view::npos ? "" : path.substr(0, slash));
  if (dirFd < 0 || !mDirectoryOnly) return {dirFd, name};
  struct stat status {};
  if (::fstatat(dirFd, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(status.st_mode)) {
    if (S_ISLNK(status.st_mode)) return wholeAsDirectory();
    errno = ENOTDIR;
    return {-1, ""};
  }
  return {dirFd, name};
}

UniqueFd Location::open(int flags, mode_t mode) const {
  if (mError != 0) {
    errno = mError;
    return {};
  }
  if (mDirectoryOnly) flags |= O_DIRECTORY;
  if (confined()) return mRoot->open(mPath, flags, mode);
  return UniqueFd(retryOnInterrupt([&] { return ::open(mPath, flags | O_CLOEXEC, mode); }));
}

int Location::lstat(struct stat& status) const {
  // Through an open directory it takes one call, but opening one takes two.
  if (confined() && mError == 0 && !mDirectoryOnly &&
      (mRoot->expectsMore() || std::strchr(mPath, '/') == nullptr)) {
    const Entry at = entry();
    if (!at) return -1;
    return retryOnInterrupt([&] {
      return ::fstatat(at.dirFd, at.name, &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT);
    });
  }
  const UniqueFd fd = open(mDirectoryOnly ? O_PATH : O_PATH | O_NOFOLLOW);
  return fd ? ::fstat(fd.get(), &status) : -1;
}

}  // namespace zor
