// Making, removing, linking and renaming of names.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "file_manager_linux.h"
#include "morvel_log.h"

namespace zor {
namespace {

bool isSeparator(char character) noexcept { return character == '/' || character == '\\'; }

// The places on the way to one directory, all below the same root (or all
// complete local paths).
class Ancestors {
 public:
  explicit Ancestors(const Location& of) : mRoot(of.root()) {}

  std::size_t rootLength() const noexcept {
    return mRoot != nullptr ? mRoot->mountPoint().size() : 0;
  }

  bool isExistingDirectory(const std::string& path) const {
    if (mRoot != nullptr) return bool(Location(*mRoot, path).open(O_PATH | O_DIRECTORY));
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
  }

  int make(const std::string& path, int mode) const {
    if (mRoot != nullptr) return make(Location(*mRoot, path), mode);
    return make(Location(path.c_str()), mode);
  }

 private:
  static int make(const Location& place, int mode) {
    const Location::Entry entry = place.entry();
    return entry ? ::mkdirat(entry.dirFd, entry.name, static_cast<mode_t>(mode & 0xffff)) : -1;
  }

  DiskRoot* mRoot;
};

bool isDirectory(const Location::Entry& entry) noexcept {
  struct stat status {};
  return ::fstatat(entry.dirFd, entry.name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISDIR(status.st_mode);
}

}  // namespace

int FileManagerLinux::UdiskMakeDir(char* path, int mode, short createLast) {
  if (path == nullptr) return 0;
  return UdiskMakeDir(Location(path), mode, createLast);
}

int FileManagerLinux::UdiskMakeDir(const Location& directory, int mode, short createLast) {
  if (directory.error() != 0) {
    errno = directory.error();
    return -1;
  }
  const Ancestors ancestors(directory);
  // The mount point is there; only its part of the complete path is written down.
  const std::size_t begin = ancestors.rootLength();
  std::string path = directory.localPath().str();
  for (std::size_t at = 1; at < path.size(); ++at) {
    if (!isSeparator(path[at])) continue;
    const std::string prefix = path.substr(0, at);
    MORVEL_DEBUG(kLogDebug, "pszDir:%s\n", prefix.c_str());
    if (at <= begin) continue;
    const std::string below = prefix.substr(begin);
    if (!ancestors.isExistingDirectory(below) && ancestors.make(below, mode) != 0) return -1;
    path[at] = '/';
  }
  path.erase(0, begin);
  if (createLast == 0 || ancestors.isExistingDirectory(path)) return 0;
  return ancestors.make(path, mode);
}

int FileManagerLinux::UdiskLink(char* from, char* to) {
  return UdiskLink(Location(from), Location(to));
}

int FileManagerLinux::UdiskLink(const Location& from, const Location& to) {
  if (to.directoryOnly()) {  // no directory comes into being by a link
    errno = ENOENT;
    return -1;
  }
  const Location::Entry source = from.entry();
  const Location::Entry target = source ? to.entry() : Location::Entry{-1, ""};
  return target ? ::linkat(source.dirFd, source.name, target.dirFd, target.name, 0) : -1;
}

int FileManagerLinux::UdiskUnlink(char* path) { return UdiskUnlink(Location(path)); }

int FileManagerLinux::UdiskUnlink(const Location& name) {
  const Location::Entry entry = name.entry();
  return entry ? ::unlinkat(entry.dirFd, entry.name, 0) : -1;
}

int FileManagerLinux::UdiskRename(char* from, char* to) {
  return UdiskRename(Location(from), Location(to));
}

int FileManagerLinux::UdiskRename(const Location& from, const Location& to) {
  const Location::Entry source = from.entry();
  const bool fits = source && (!to.directoryOnly() || isDirectory(source));
  if (source && !fits) errno = ENOTDIR;
  const Location::Entry target = fits ? to.entry() : Location::Entry{-1, ""};
  const int result = target ? ::renameat(source.dirFd, source.name, target.dirFd, target.name) : -1;
  MORVEL_DEBUG(kLogDebug, "rename return res:%d\n", result);
  return result;
}

int FileManagerLinux::UdiskDeleteDirectory(const char* path) {
  return UdiskDeleteDirectory(Location(path));
}

int FileManagerLinux::UdiskDeleteDirectory(const Location& directory) {
  const Location::Entry entry = directory.entry();
  return entry ? ::unlinkat(entry.dirFd, entry.name, AT_REMOVEDIR) : -1;
}

}  // namespace zor
