// Attributes of files and statistics of file systems.
#include <fcntl.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "file_manager_linux.h"
#include "morvel_log.h"

namespace zor {
namespace {

// `chmod` through a descriptor that was opened without access to the file: no
// older kernel has another way that cannot be led astray by a renamed link.
int changeModeOf(int pathFd, mode_t mode) noexcept {
  char name[32];
  std::snprintf(name, sizeof name, "/proc/self/fd/%d", pathFd);
  return ::chmod(name, mode);
}

}  // namespace

int FileManagerLinux::set_stat(struct stat st, udisk_stat* out) {
  out->st_dev = static_cast<std::int64_t>(st.st_dev);
  out->st_ino = st.st_ino;
  out->st_nlink = st.st_nlink;
  out->st_size = st.st_size;
  out->st_rdev = static_cast<std::int64_t>(st.st_rdev);
  out->st_blocks = st.st_blocks;
  out->st_blksize = st.st_blksize;
  out->st_atim = {st.st_atim.tv_sec, st.st_atim.tv_nsec};
  out->st_mtim = {st.st_mtim.tv_sec, st.st_mtim.tv_nsec};
  out->st_ctim = {st.st_ctim.tv_sec, st.st_ctim.tv_nsec};
  out->st_mode = st.st_mode;
  out->st_uid = st.st_uid;
  out->st_gid = st.st_gid;
  out->reserved = 0;
  return 0;
}

int FileManagerLinux::UdiskGetFileInformation(char* path, udisk_stat* out) {
  return UdiskGetFileInformation(Location(path), out);
}

int FileManagerLinux::UdiskGetFileInformation(const Location& place, udisk_stat* out) {
  struct stat status {};
  const int result = place.lstat(status);
  MORVEL_DEBUG(kLogFrequent, "get_attr stat result: %d", result);
  if (result != 0) {
    MORVEL_ERROR(" lstat failed errno: %s", std::strerror(errno));
    return result;
  }
  set_stat(status, out);
  return 0;
}

int FileManagerLinux::UdiskGetXattr(char* /*path*/) { return -1; }

int FileManagerLinux::UdiskFileChmod(char* path, int mode) {
  return UdiskFileChmod(Location(path), mode);
}

int FileManagerLinux::UdiskFileChmod(const Location& place, int mode) {
  const UniqueFd fd = place.open(O_PATH);
  return fd ? changeModeOf(fd.get(), static_cast<mode_t>(mode & 0xffff)) : -1;
}

int FileManagerLinux::UdiskFileChown(char* path, int uid, int gid) {
  return UdiskFileChown(Location(path), uid, gid);
}

int FileManagerLinux::UdiskFileChown(const Location& place, int uid, int gid) {
  const UniqueFd fd = place.open(O_PATH);
  return fd ? ::fchownat(fd.get(), "", static_cast<uid_t>(uid), static_cast<gid_t>(gid),
                         AT_EMPTY_PATH)
            : -1;
}

int FileManagerLinux::set_statvfs(struct statvfs st, udisk_statvfs* out) {
  out->f_bsize = st.f_bsize;
  out->f_frsize = st.f_frsize;
  out->f_blocks = st.f_blocks;
  out->f_bfree = st.f_bfree;
  out->f_bavail = st.f_bavail;
  out->f_files = st.f_files;
  out->f_ffree = st.f_ffree;
  out->f_favail = st.f_favail;
  out->f_fsid = st.f_fsid;
  out->f_flag = st.f_flag;
  out->f_namemax = st.f_namemax;
  out->f_spare = {};
  return 0;
}

int FileManagerLinux::UdiskGetStatvfs(char* path, udisk_statvfs* out) {
  const UniqueFd fd(::open(path, O_PATH | O_CLOEXEC));
  return statisticsOf(fd.get(), out);
}

int FileManagerLinux::UdiskGetStatvfs(const DiskRoot& root, udisk_statvfs* out) {
  return statisticsOf(root.error() == 0 ? root.fd() : -1, out);
}

int FileManagerLinux::statisticsOf(int fd, udisk_statvfs* out) {
  struct statvfs volume {};
  struct statfs blocks {};
  ::fstatvfs(fd, &volume);
  ::fstatfs(fd, &blocks);
  set_statvfs(volume, out);
  // The block counts come from the call that carries them in 64 bits everywhere.
  out->f_bsize = static_cast<std::uint64_t>(blocks.f_bsize);
  out->f_blocks = blocks.f_blocks;
  out->f_bfree = blocks.f_bfree;
  out->f_bavail = blocks.f_bavail;
  return 0;
}

}  // namespace zor
