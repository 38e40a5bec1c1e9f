#include "host/mounted_partition.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "host/partition_lock.h"
#include "service/mount_table.h"
#include "service/partition_mounter.h"
#include "support/printable.h"

namespace zor::host {
namespace {

constexpr char kNoDirectory[] =
    "no directory below /media can be used, or there is no program mount";
constexpr char kMountFailed[] = "the program mount failed, see the log";

// These do not know the options of PartitionMounter: their permissions are
// on the disk, and their names are bytes.
bool isMountedPlainly(std::string_view type) {
  constexpr std::array<std::string_view, 8> kTypes = {"ext2", "ext3", "ext4", "btrfs",
                                                      "xfs",  "f2fs", "udf",  "iso9660"};
  return std::find(kTypes.begin(), kTypes.end(), type) != kTypes.end();
}

std::string devicePath(const std::string& given) {
  const std::string path = given.find('/') == std::string::npos ? "/dev/" + given : given;
  std::error_code error;
  const auto device = std::filesystem::canonical(path, error);
  if (error) throw std::runtime_error(printable(path) + ": " + error.message());
  return device.string();
}

dev_t deviceNumber(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    throw std::runtime_error(printable(path) + ": " + std::strerror(errno));
  }
  if (!S_ISBLK(status.st_mode)) {
    throw std::runtime_error(printable(path) + " is no partition: it is not a block device");
  }
  return status.st_rdev;
}

UDiskInfo probe(const std::string& device, dev_t number) {
  UdiskDevice disk;
  if (DiskProbe::GetDeviceLabel(device.c_str(), &disk) != 0) {
    throw std::runtime_error("cannot list partitions: is the program blkid installed?");
  }
  const std::unique_ptr<UDiskInfo, void (*)(void*)> parts(disk.parts, std::free);
  for (std::size_t i = 0; i < disk.partCount; ++i) {
    struct stat listed {};
    if (::stat(disk.parts[i].devPath, &listed) == 0 && S_ISBLK(listed.st_mode) &&
        listed.st_rdev == number) {
      return disk.parts[i];
    }
  }
  throw std::runtime_error("it has no file system with a label or a UUID");
}

// Forbids device nodes and setuid programs of the disk, and changes if it is to be
// read only, for whoever uses the mount; what else it forbids stays forbidden. The
// descriptor leads to what was checked, whatever is at the path by now.
void restrictMount(const std::string& directory, const std::string& device, bool readOnly) {
  const UniqueFd root(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct statvfs status {};
  const auto mount = mountAt(directory);
  if (!root || !mount || !shows(*mount, device) || ::fstatvfs(root.get(), &status) != 0) {
    throw std::runtime_error("what is mounted on " + printable(directory) + " is not " +
                             printable(device));
  }
  const unsigned long wanted = 0UL | ST_NOSUID | ST_NODEV | (readOnly ? +ST_RDONLY : 0);
  if ((status.f_flag & wanted) == wanted) return;
  unsigned long flags = MS_REMOUNT | MS_BIND | MS_NOSUID | MS_NODEV;
  if (readOnly || (status.f_flag & ST_RDONLY) != 0) flags |= MS_RDONLY;
  if ((status.f_flag & ST_NOEXEC) != 0) flags |= MS_NOEXEC;
  const std::string path = "/proc/self/fd/" + std::to_string(root.get());
  if (::mount(nullptr, path.c_str(), nullptr, flags, nullptr) != 0 ||
      ::fstatvfs(root.get(), &status) != 0 || (status.f_flag & wanted) != wanted) {
    throw std::runtime_error("cannot forbid programs and devices of " + printable(device) + ": " +
                             std::strerror(errno));
  }
}

// Where a partition was mounted, and what unmounts it; both can be used in another process.
struct Mounted {
  std::string directory;
  std::function<void()> unmount;
};

Mounted mountLocal(UDiskInfo part) {
  PartitionMounter mounter;
  if (const int result = mounter.MountLocal(&part); result != 0) {
    throw std::runtime_error(result < 0 ? kNoDirectory : kMountFailed);
  }
  return {part.mountPath, [mounter, part]() mutable { mounter.unmount(part); }};
}

Mounted mountPlain(const UDiskInfo& part, bool readOnly) {
  auto directory = MountDirectory::prepare(part);
  if (!directory) throw std::runtime_error(kNoDirectory);
  const std::string options = readOnly ? "nosuid,nodev,ro" : "nosuid,nodev";
  if (!directory->mount(part.devPath, {"-t", part.fsType, "-o", options}).succeeded()) {
    directory->remove();
    throw std::runtime_error(kMountFailed);
  }
  return {directory->path(), [taken = *directory] { taken.unmount(); }};
}

void unmount(const Mounted& mounted) {
  {  // the unmount itself does not wait for what is still in use
    const UniqueFd root(::open(mounted.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (root) ::syncfs(root.get());
  }
  mounted.unmount();
  if (mountAt(mounted.directory)) {
    throw std::runtime_error(printable(mounted.directory) + " could not be unmounted");
  }
}

}  // namespace

MountedPartition mountPartition(const std::string& device, bool readOnly, Cleanup& cleanup) {
  if (::geteuid() != 0) throw std::runtime_error("only root can mount a partition");
  const std::string path = devicePath(device);
  const dev_t number = deviceNumber(path);
  try {
    UniqueFd lock = lockPartition(number);
    const UDiskInfo part = probe(path, number);
    const UniqueFd mounting = lockMounting();
    const Mounted mounted =
        isMountedPlainly(part.fsType) ? mountPlain(part, readOnly) : mountLocal(part);
    cleanup.add(Cleanup::kUnmount, [mounted] { unmount(mounted); });
    try {
      restrictMount(mounted.directory, part.devPath, readOnly);
    } catch (...) {
      cleanup.tryToRun(Cleanup::kUnmount);  // as long as it is locked
      throw;
    }
    return {std::move(lock), mounted.directory, part.label};
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("cannot mount " + printable(path) + ": " + error.what());
  }
}

}  // namespace zor::host
