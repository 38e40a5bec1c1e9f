#include "host/local_disk.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "service/disk_probe.h"

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

RemovableDisk findRemovableDisk() {
  RemovableDisk found;
  char name[4] = {};
  DiskProbe::GetDevName(name);
  // Without a removable disk the name is that of the last one checked.
  if (name[0] == '\0' || DiskProbe::CheckRemovable(name) != 1) return found;
  found.name = name;
  if (std::string port = usbPort(found.name); !port.empty()) {
    found.interfaceClass = DiskProbe::GetDeviceClass(port.data());
  }
  ProbedDisk probed;
  if (DiskProbe::GetDeviceLabel(("/dev/" + found.name + "1").c_str(), &probed.disk) != 0) {
    throw std::runtime_error("cannot list partitions: is the program blkid installed?");
  }
  for (std::size_t i = 0; i < probed.disk.partCount; ++i) {
    const UDiskInfo& part = probed.disk.parts[i];
    found.partitions.push_back({part.devPath, part.label, part.fsType});
  }
  return found;
}

}  // namespace zor::host
