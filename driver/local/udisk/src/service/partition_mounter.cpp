#include "partition_mounter.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "morvel_log.h"

namespace zor {

int PartitionMounter::MountLocal(UDiskInfo* info) {
  auto directory = info->devPath[0] == '/' ? MountDirectory::prepare(*info) : std::nullopt;
  if (!directory) {
    MORVEL_ERROR("no directory to mount at for device %s, label %s", info->devPath, info->label);
    return -1;
  }
  const CommandResult mounted = directory->mount(
      info->devPath, {"-o", "dmask=0000", "-o", "fmask=0000", "-o", "iocharset=utf8"});
  std::snprintf(info->mountPath, sizeof info->mountPath, "%s", directory->path().c_str());
  if (mounted.succeeded()) {
    mDirectories.push_back(*directory);
  } else {
    MORVEL_ERROR("udisk mount errno: %d", errno);
    directory->remove();
  }
  return mounted.exitStatus;
}

void PartitionMounter::unmount(const UDiskInfo& part) {
  const std::string path = part.mountPath;
  const auto directory =
      std::find_if(mDirectories.begin(), mDirectories.end(),
                   [&](const MountDirectory& known) { return known.path() == path; });
  if (directory != mDirectories.end()) {
    directory->unmount();
    mDirectories.erase(directory);
  } else if (const auto mount = mountAt(path); mount && shows(*mount, part.devPath)) {
    unmountLazily(path);  // mounted by somebody else, whose directory it is
  }
}

}  // namespace zor
