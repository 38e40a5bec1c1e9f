#include "local_disk.h"

#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "operator/udisk_operator.h"
#include "service/mount_table.h"
#include "service/udisk_service.h"
#include "text.h"

namespace zor::host {
namespace {

// The USB port that a block device hangs at, e.g. 1-2.4; empty when at none.
std::string usbPort(const std::string& disk) {
  std::error_code error;
  const auto device = std::filesystem::canonical("/sys/block/" + disk + "/device", error);
  std::string port;
  for (const auto& part : device) {
    const std::string name = part.string();
    const bool named = name.find_first_not_of("0123456789-.") == std::string::npos;
    if (named && name.find('-') != std::string::npos) port = name;
  }
  return port;
}

// Owns the array of a probed disk until somebody takes it over.
struct ProbedDisk {
  ProbedDisk() = default;
  ~ProbedDisk() { std::free(disk.parts); }
  ProbedDisk(const ProbedDisk&) = delete;
  ProbedDisk& operator=(const ProbedDisk&) = delete;

  UdiskDevice disk;
};

}  // namespace

// The module's own service, used without a driver: probing and mounting need no
// device. Its operator only takes the reset of a mount point that it never had.
struct MountedPartition::Service {
  UDiskOperator op{nullptr};
  UDiskService service{nullptr, &op};
};

RemovableDisk findRemovableDisk() {
  UDiskService service(nullptr, nullptr);
  RemovableDisk found;
  char name[4] = {};
  service.GetDevName(name);
  // Without a removable disk the name is that of the last one looked at.
  if (name[0] == '\0' || service.CheckRemovable(name) != 1) return found;
  found.name = name;
  if (std::string port = usbPort(found.name); !port.empty()) {
    found.interfaceClass = service.GetDeviceClass(port.data());
  }
  ProbedDisk probed;
  if (service.GetDeviceLabel(("/dev/" + found.name + "1").c_str(), &probed.disk) != 0) {
    throw std::runtime_error("cannot list partitions: is the program blkid installed?");
  }
  for (std::size_t i = 0; i < probed.disk.partCount; ++i) {
    const UDiskInfo& part = probed.disk.parts[i];
    found.partitions.push_back({part.devPath, part.label, part.fsType});
  }
  return found;
}

MountedPartition::MountedPartition(const std::string& device)
    : mService(std::make_unique<Service>()) {
  ProbedDisk probed;
  if (mService->service.GetDeviceLabel(device.c_str(), &probed.disk) != 0) {
    throw std::runtime_error("cannot list partitions: is " + printable(device) +
                             " a partition, and the program blkid installed?");
  }
  for (std::size_t i = 0; i < probed.disk.partCount; ++i) {
    if (device != probed.disk.parts[i].devPath) continue;
    // The service frees what it is given, so it gets a disk of one partition.
    auto* part = static_cast<UDiskInfo*>(std::malloc(sizeof(UDiskInfo)));
    if (part == nullptr) throw std::bad_alloc();
    *part = probed.disk.parts[i];
    mService->service.TakeDisk(new UdiskDevice{1, part});
    const int result = mService->service.MountLocal(part);
    mDirectory = part->mountPath;
    mLabel = part->label;
    if (result == 0) return;
    unmount();  // removes the directory that was made
    throw std::runtime_error("cannot mount " + printable(device) +
                             ": the mount program failed (are you root?)");
  }
  throw std::runtime_error(printable(device) + " has no file system with a label or a UUID");
}

MountedPartition::~MountedPartition() {
  try {
    unmount();
  } catch (const std::exception& error) {
    spdlog::error("{}", error.what());
  }
}

void MountedPartition::release() noexcept {
  if (mService) mService->service.TakeDisk(nullptr);
  mService.reset();
}

void MountedPartition::unmount() {
  if (!mService) return;
  ::sync();  // the unmount itself does not wait for what is still in use
  const std::unique_ptr<Service> service = std::move(mService);
  service->service.UmountLocal();
  if (isMountPoint(mDirectory)) {
    throw std::runtime_error(printable(mDirectory) + " could not be unmounted");
  }
}

}  // namespace zor::host
