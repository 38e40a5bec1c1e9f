// Mounting of probed partitions below /media, with the system's tools.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "command.h"
#include "morvel_log.h"
#include "mount_directory.h"
#include "operator/udisk_operator.h"
#include "udisk_service.h"

namespace zor {

int UDiskService::MountLocal(UDiskInfo* info) {
  auto directory = info->devPath[0] == '/' ? MountDirectory::prepare(*info) : std::nullopt;
  if (!directory) {
    MORVEL_ERROR("no directory to mount at for device %s, label %s", info->devPath, info->label);
    return -1;
  }
  const CommandResult mounted = directory->mount(
      info->devPath, {"-o", "dmask=0000", "-o", "fmask=0000", "-o", "iocharset=utf8"});
  std::snprintf(info->mountPath, sizeof info->mountPath, "%s", directory->path().c_str());
  if (mounted.succeeded()) {
    mMountDirectories.push_back(*directory);
  } else {
    MORVEL_ERROR("udisk mount errno: %d", errno);
    directory->remove();
  }
  return mounted.exitStatus;
}

int UDiskService::UmountLocal() {
  if (mUdiskDevice == nullptr) return -1;
  for (std::size_t i = 0; i < mUdiskDevice->partCount; ++i) {
    const UDiskInfo& part = mUdiskDevice->parts[i];
    const std::string path = part.mountPath;
    const auto directory =
        std::find_if(mMountDirectories.begin(), mMountDirectories.end(),
                     [&](const MountDirectory& known) { return known.path() == path; });
    if (directory != mMountDirectories.end()) {
      directory->unmount();
      mMountDirectories.erase(directory);
    } else if (const auto mount = mountAt(path); mount && shows(*mount, part.devPath)) {
      unmountLazily(path);  // mounted by somebody else, whose directory it is
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
