// The packets that the module sends on its own account.
#pragma once

#include <atomic>
#include <cstdint>

#include "zor_device.h"

namespace zor {

class UDiskOperator;

/// Announces a disk to its client. Any thread.
class DiskAnnouncer {
 public:
  /// Neither is owned; both must outlive the announcer.
  DiskAnnouncer(ZorDevice* device, UDiskOperator* op) noexcept : mDevice(device), mOperator(op) {}

  /// Announces the disk under `name`, of at most 255 bytes. The result of
  /// sending, or -1 when `device` is not this announcer's device or has no base.
  int MountRemote(char* name, ZorDevice* device);
  /// Reports that small files can be read in batches.
  void SetReadSmallFileTrubo();
  /// Sets the flag that the next announcement carries, and makes every changing
  /// command fail while it is not 0. Always 0.
  int UpdateReadOnly(unsigned char readOnly);

 private:
  ZorDevice* mDevice;
  UDiskOperator* mOperator;
  std::atomic<std::uint8_t> mReadOnly{0};
};

}  // namespace zor
