#include "mount_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "disk_probe.h"
#include "morvel_log.h"
#include "support/unique_fd.h"

namespace zor {
namespace {

constexpr char kMountBase[] = "/media";

bool isPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool fitsMountPath(const std::string& directory) {
  return directory.size() < sizeof UDiskInfo::mountPath;
}

// Where others may rename, what was checked is not what is mounted on or removed.
bool isOutOfOthersReach(const char* directory) {
  struct stat status {};
  return ::stat(directory, &status) == 0 && S_ISDIR(status.st_mode) &&
         (status.st_uid == 0 || status.st_uid == ::geteuid()) &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

UniqueFd openDirectory(const std::string& path) {
  return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// A directory that cannot be read counts as full.
bool isEmpty(UniqueFd directory) {
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(directory.get()), ::closedir);
  if (!entries) return false;
  directory.release();
  errno = 0;
  while (const dirent* entry = ::readdir(entries.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") return false;
  }
  return errno == 0;
}

void runUmount(std::vector<std::string> arguments) {
  CommandOptions options;
  options.timeoutMs = kNoTimeLimit;
  options.errors = ErrorOutput::kDropped;  // often there is nothing to unmount
  arguments.insert(arguments.begin(), "umount");
  runCommand(arguments, options);
}

}  // namespace

void unmountLazily(const std::string& directory) { runUmount({"-l", directory}); }

std::optional<MountDirectory> MountDirectory::prepare(const UDiskInfo& info) {
  if (!isOutOfOthersReach(kMountBase)) {
    MORVEL_ERROR("%s is no directory that only its owner may write to, nothing is mounted below it",
                 kMountBase);
    return std::nullopt;
  }
  const std::string device = info.devPath;
  for (const std::string& name : {std::string(info.label), device.substr(device.rfind('/') + 1)}) {
    MountDirectory directory(std::string(kMountBase) + "/" + name);
    if (!isPlainName(name) || !fitsMountPath(directory.mPath)) continue;
    if (directory.makeOrCheck(info)) return directory;
    MORVEL_ERROR("%s is not used: it holds something, is not this user's, or is in use",
                 directory.mPath.c_str());
  }
  return std::nullopt;
}

bool MountDirectory::makeOrCheck(const UDiskInfo& info) {
  if (const auto mount = mountAt(mPath)) {
    if (!shows(*mount, info.devPath)) return false;
  } else if (!isDirectory(mPath)) {
    const int made = ::mkdir(mPath.c_str(), 0777);
    MORVEL_DEBUG(kLogDebug, "mkdir res: %d", made);
    if (made != 0) return false;
    mMade = true;
  } else if (!isFree()) {
    return false;
  }
  runUmount({mPath});
  struct stat status {};
  if (!isFree() || ::lstat(mPath.c_str(), &status) != 0) return false;
  mDevice = status.st_dev;
  mInode = status.st_ino;
  return true;
}

bool MountDirectory::isFree() const {
  UniqueFd directory = openDirectory(mPath);
  struct stat status {};
  return directory && ::fstat(directory.get(), &status) == 0 && status.st_uid == ::geteuid() &&
         isEmpty(std::move(directory)) && !mountAt(mPath);
}

CommandResult MountDirectory::mount(const std::string& source,
                                    const std::vector<std::string>& options) {
  CommandOptions limits;
  limits.timeoutMs = kNoTimeLimit;
  limits.errors = ErrorOutput::kCollected;
  std::vector<std::string> arguments{"mount", source, mPath};
  arguments.insert(arguments.end(), options.begin(), options.end());
  const CommandResult result = runCommand(arguments, limits);
  // Why it failed, or that the disk is write-protected.
  if (!result.output.empty()) MORVEL_ERROR("mount: %s", result.output.c_str());
  if (result.succeeded()) mMount = mountAt(mPath);
  return result;
}

bool MountDirectory::isMounted() const { return mMount && mMount == mountAt(mPath); }

void MountDirectory::unmount() const {
  if (mountAt(mPath) && !isMounted()) {
    MORVEL_ERROR("something else was mounted on %s meanwhile, it is left alone", mPath.c_str());
    return;
  }
  unmountLazily(mPath);
  remove();
}

void MountDirectory::remove() const {
  if (!mMade) return;
  UniqueFd directory = openDirectory(mPath);
  if (!directory && errno == ENOENT) return;
  struct stat status {};
  const bool isOwn = directory && ::fstat(directory.get(), &status) == 0 &&
                     status.st_dev == mDevice && status.st_ino == mInode;
  // From then on nobody else can put anything into it.
  if (!isOwn || mountAt(mPath)) {
    MORVEL_ERROR("%s is still mounted, its directory is kept", mPath.c_str());
  } else if (::fchmod(directory.get(), S_IRWXU) != 0 || !isEmpty(std::move(directory))) {
    MORVEL_ERROR("%s is not empty, its directory is kept", mPath.c_str());
  } else if (!runCommand({"rm", "-rf", "--one-file-system", "--preserve-root=all", "--", mPath})
                  .succeeded()) {
    // The last option refuses what is a mount point itself, should one have come since.
    MORVEL_ERROR("mount directory %s could not be removed", mPath.c_str());
  }
}

}  // namespace zor
