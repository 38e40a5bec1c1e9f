// Mounting of probed partitions below /media, with the system's tools.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "command.h"
#include "morvel_log.h"
#include "mount_table.h"
#include "operator/udisk_operator.h"
#include "udisk_service.h"

namespace zor {
namespace {

constexpr char kMountBase[] = "/media";

bool isPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool fitsMountPath(const std::string& directory) {
  return directory.size() < sizeof UDiskInfo::mountPath;
}

// Empty when neither the label nor the device makes a directory name.
std::string mountDirectory(const UDiskInfo& info) {
  const std::string base = std::string(kMountBase) + "/";
  if (isPlainName(info.label) && fitsMountPath(base + info.label)) return base + info.label;
  const std::string device = info.devPath;
  const std::string name = device.substr(device.rfind('/') + 1);
  return isPlainName(name) && fitsMountPath(base + name) ? base + name : "";
}

bool onSameFileSystem(const std::string& directory, const char* base) {
  struct stat own {};
  struct stat other {};
  return ::lstat(directory.c_str(), &own) == 0 && ::stat(base, &other) == 0 &&
         own.st_dev == other.st_dev;
}

}  // namespace

int UDiskService::MountLocal(UDiskInfo* info) {
  const std::string directory = mountDirectory(*info);
  if (directory.empty() || info->devPath[0] != '/') {
    MORVEL_ERROR("no directory to mount at for device %s, label %s", info->devPath, info->label);
    return -1;
  }
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    const int made = ::mkdir(directory.c_str(), 0777);
    MORVEL_DEBUG(kLogDebug, "mkdir res: %d", made);
  }
  CommandOptions unmounting;
  unmounting.showErrors = false;  // usually nothing is mounted there
  runCommand({"umount", directory}, unmounting);
  const CommandResult mounted = runCommand({"mount", info->devPath, directory, "-o", "dmask=0000",
                                            "-o", "fmask=0000", "-o", "iocharset=utf8"});
  if (!mounted.succeeded()) MORVEL_ERROR("udisk mount errno: %d", errno);
  std::snprintf(info->mountPath, sizeof info->mountPath, "%s", directory.c_str());
  return mounted.exitStatus;
}

int UDiskService::UmountLocal() {
  if (mUdiskDevice == nullptr) return -1;
  for (std::size_t i = 0; i < mUdiskDevice->partCount; ++i) {
    const std::string directory = mUdiskDevice->parts[i].mountPath;
    if (directory.empty()) continue;
    runCommand({"umount", "-l", directory});
    // What is removed while the disk still shows there are the disk's own files.
    if (isMountPoint(directory) || !onSameFileSystem(directory, kMountBase)) {
      MORVEL_ERROR("%s is still mounted, its directory is kept", directory.c_str());
    } else if (!runCommand({"rm", "-rf", "--one-file-system", "--", directory}).succeeded()) {
      MORVEL_ERROR("mount directory %s could not be removed", directory.c_str());
    }
  }
  TakeDisk(nullptr);
  mOperator->SetRootPath(nullptr, nullptr);
  return 0;
}

void UDiskService::TakeDisk(UdiskDevice* disk) {
  if (mUdiskDevice != nullptr) std::free(mUdiskDevice->parts);
  delete mUdiskDevice;
  mUdiskDevice = disk;
}

}  // namespace zor
