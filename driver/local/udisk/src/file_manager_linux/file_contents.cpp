// Creating, reading, writing, resizing and flushing of files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "file_manager_linux.h"
#include "morvel_log.h"

namespace zor {
namespace {

// Opening a FIFO would wait for its other end, and opening a device can do
// anything, so only what is known to be a regular file is opened. A neighbour may
// exchange names in between: what was opened is checked once more before a byte moves,
// and O_NONBLOCK covers the opening.
constexpr int kNeverBlock = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// How often a neighbour may win before the operation fails.
constexpr int kRaceRetries = 16;

// A device stood where a file was asked for. A neighbour who puts it there to have it opened is
// seen so long before he wins, and from then on every opening takes the time to be safe from him.
std::atomic<bool> gDevicesAbout{false};

bool isRegular(const struct stat& status) noexcept {
  if (S_ISREG(status.st_mode)) return true;
  if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)) gDevicesAbout = true;
  errno = S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
  return false;
}

// Whether `fd` is the regular file that `status` describes.
bool isThatFile(int fd, const struct stat& status) noexcept {
  struct stat opened {};
  if (::fstat(fd, &opened) == 0 && isRegular(opened) && opened.st_dev == status.st_dev &&
      opened.st_ino == status.st_ino) {
    return true;
  }
  errno = ESTALE;
  return false;
}

// Opens the very file that `path`, a descriptor without access to it, stands for.
// Without /proc it fails with ENOENT.
UniqueFd openAgain(const UniqueFd& path, int flags) noexcept {
  char name[32];
  std::snprintf(name, sizeof name, "/proc/self/fd/%d", path.get());
  return UniqueFd(retryOnInterrupt([&] { return ::open(name, flags | kNeverBlock); }));
}

// Follows symbolic links; `status` describes the opened file.
UniqueFd openThroughLink(const Location& file, int flags, struct stat& status, mode_t mode) {
  if (const UniqueFd target = file.open(O_PATH)) {
    if (::fstat(target.get(), &status) != 0 || !isRegular(status)) return {};
    UniqueFd fd = openAgain(target, flags & ~O_CREAT);
    if (fd || errno != ENOENT) return fd;
    fd = file.open((flags & ~O_CREAT) | kNeverBlock);
    return fd && isThatFile(fd.get(), status) ? std::move(fd) : UniqueFd();
  }
  if (errno != ENOENT || (flags & O_CREAT) == 0) return {};
  UniqueFd fd = file.open(flags | kNeverBlock, mode);
  return fd && ::fstat(fd.get(), &status) == 0 && isRegular(status) ? std::move(fd) : UniqueFd();
}

// Opens the very file that `status` describes, and nothing else even for a moment.
UniqueFd openGuarded(const Location::Entry& entry, int flags, const struct stat& status) {
  const UniqueFd path(::openat(entry.dirFd, entry.name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!path || !isThatFile(path.get(), status)) return {};
  UniqueFd fd = openAgain(path, flags);
  if (!fd && errno == ENOENT) {
    fd = UniqueFd(::openat(entry.dirFd, entry.name, flags | O_NOFOLLOW | kNeverBlock));
  }
  return fd;
}

// One try. ESTALE: a neighbour came in between.
OpenedFile tryRegular(const Location& file, const Location::Entry& entry, int flags,
                      struct stat& status, mode_t mode) {
  const bool there = ::fstatat(entry.dirFd, entry.name, &status, AT_SYMLINK_NOFOLLOW) == 0;
  if (!there && (errno != ENOENT || (flags & O_CREAT) == 0)) return {};
  if (there && S_ISLNK(status.st_mode)) {
    return OpenedFile(openThroughLink(file, flags, status, mode));
  }
  if (there && !isRegular(status)) return {};
  if (file.directoryOnly()) {
    errno = EISDIR;
    return {};
  }
  if (!there) {  // what is made new is what is opened
    UniqueFd fd(::openat(entry.dirFd, entry.name, flags | O_EXCL | O_NOFOLLOW | kNeverBlock, mode));
    if (!fd && errno == EEXIST) errno = ESTALE;
    return OpenedFile(std::move(fd));
  }
  DiskRoot& root = *file.root();
  const auto open = [&]() -> UniqueFd {
    const int existing = flags & ~O_CREAT;
    if (gDevicesAbout.load(std::memory_order_relaxed)) return openGuarded(entry, existing, status);
    return UniqueFd(retryOnInterrupt(
        [&] { return ::openat(entry.dirFd, entry.name, existing | O_NOFOLLOW | kNeverBlock); }));
  };
  if (root.expectsMore() && (flags == O_RDONLY || flags == O_WRONLY)) {
    if (const int held = root.held(flags).find(status, open); held >= 0) return OpenedFile(held);
  }
  UniqueFd fd = open();
  if (!fd && errno == ENOENT && (flags & O_CREAT) != 0) errno = ESTALE;
  return fd && isThatFile(fd.get(), status) ? OpenedFile(std::move(fd)) : OpenedFile();
}

OpenedFile openRegular(const Location& file, int flags, struct stat& status, mode_t mode = 0) {
  if (!file.confined()) return OpenedFile(openThroughLink(file, flags, status, mode));
  const Location::Entry entry = file.entry();
  if (!entry) return {};
  for (int tries = kRaceRetries; tries > 0; --tries) {
    OpenedFile opened = tryRegular(file, entry, flags, status, mode);
    if (opened || errno != ESTALE) return opened;
  }
  return {};
}

OpenedFile create(const Location& file, int mode) {
  struct stat status {};
  // openat2 refuses bits that are no permissions, which other calls pass over.
  return openRegular(file, O_WRONLY | O_CREAT | O_TRUNC, status, static_cast<mode_t>(mode & 07777));
}

int synchronise(const Location& file) {
  struct stat status {};
  const OpenedFile fd = openRegular(file, O_RDWR, status);
  return fd ? retryOnInterrupt([&] { return ::fsync(fd.get()); }) : -1;
}

}  // namespace

void FileManagerLinux::expectDevices(bool on) noexcept { gDevicesAbout = on; }

int FileManagerLinux::UdiskCreateFile(char* path, int flags, int mode) {
  return UdiskCreateFile(Location(path), flags, mode);
}

int FileManagerLinux::UdiskCreateFile(const Location& file, int /*flags*/, int mode) {
  OpenedFile fd = create(file, mode);
  if (!fd) {
    UdiskMakeDir(file, 0777, 0);
    if (DiskRoot* root = file.root()) root->forgetOpened();
    fd = create(file, mode);
  }
  return fd.get();
}

int FileManagerLinux::UdiskFileOpen(char* /*path*/) { return -1; }
int FileManagerLinux::UdiskCloseFile(char* /*path*/, int /*fd*/) { return 0; }
int FileManagerLinux::UdiskCleanUp(char* /*path*/, int /*fd*/) { return 0; }
int FileManagerLinux::UdiskFlushFile(char* /*path*/) { return -1; }
int FileManagerLinux::UdiskFlush(char* /*path*/) { return 0; }

int FileManagerLinux::UdiskReadFile(const char* path, char* buf, long long offset, int size) {
  struct stat status {};
  const OpenedFile fd = openRegular(Location(path), O_RDONLY, status);
  if (!fd) {
    MORVEL_ERROR("file_read failed res:%d errno: %s\n", 0, std::strerror(errno));
    return 0;
  }
  const ssize_t count = retryOnInterrupt(
      [&] { return ::pread(fd.get(), buf, static_cast<std::size_t>(size), offset); });
  if (count >= 0) return static_cast<int>(count);
  MORVEL_ERROR("file_read failed res: %d, fd = %d errno: %s\n", -1, fd.get(), std::strerror(errno));
  return 0;
}

int FileManagerLinux::UdiskReadFile(const Location& file, std::int64_t offset, std::uint32_t size,
                                    ReadTarget& target, Failures failures) {
  struct stat status {};
  const OpenedFile fd = openRegular(file, O_RDONLY, status);
  if (!fd) {
    if (failures == Failures::kLogged) {
      MORVEL_ERROR("file_read failed res:%d errno: %s\n", 0, std::strerror(errno));
    }
    return -1;
  }
  if (offset >= status.st_size) return 0;
  const auto behind =
      static_cast<std::uint64_t>(status.st_size - std::max<std::int64_t>(offset, 0));
  const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size, behind));
  std::byte* room = target.room(wanted);
  ssize_t count = -1;
  if (room == nullptr) {
    errno = ENOMEM;
  } else {
    count = retryOnInterrupt([&] { return ::pread(fd.get(), room, wanted, offset); });
  }
  if (count < 0 && failures == Failures::kLogged) {
    MORVEL_ERROR("file_read failed res: %d, fd = %d errno: %s\n", -1, fd.get(),
                 std::strerror(errno));
  }
  return static_cast<int>(count);
}

FileWriter::FileWriter(const Location& file) {
  struct stat status {};
  mFile = openRegular(file, O_WRONLY, status);
  if (!mFile) MORVEL_ERROR_OF(kFunction, "write file fail errno:%s \n", std::strerror(errno));
}

int FileWriter::write(std::span<const std::byte> data, std::int64_t offset) noexcept {
  if (!mFile) return 0;
  const ssize_t count =
      retryOnInterrupt([&] { return ::pwrite(mFile.get(), data.data(), data.size(), offset); });
  if (count < 0) {
    MORVEL_ERROR_OF(kFunction, "pwrite failed res: %d, fd = %d errno: %s\n", -1, mFile.get(),
                    std::strerror(errno));
  }
  return static_cast<int>(count);
}

int FileManagerLinux::UdiskWriteFile(char* path, char* buf, long long offset, int size) {
  const std::span<const char> data(buf, static_cast<std::size_t>(size));
  return FileWriter(Location(path)).write(std::as_bytes(data), offset);
}

int FileManagerLinux::UdiskTruncate(char* path, long long length) {
  return UdiskTruncate(Location(path), length);
}

int FileManagerLinux::UdiskTruncate(const Location& file, long long length) {
  struct stat status {};
  const OpenedFile fd = openRegular(file, O_WRONLY, status);
  return fd ? retryOnInterrupt([&] { return ::ftruncate(fd.get(), length); }) : -1;
}

int FileManagerLinux::UdiskFsync(char* path) { return synchronise(Location(path)); }
int FileManagerLinux::UdiskFsync(const Location& file) { return synchronise(file); }

int FileManagerLinux::UdiskRelease(char* path) { return UdiskRelease(Location(path)); }

int FileManagerLinux::UdiskRelease(const Location& file) {
  synchronise(file);
  return 0;
}

}  // namespace zor
