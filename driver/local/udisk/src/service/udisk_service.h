// The disk service: announces the disk, and probes and mounts disks for a host
// that does that itself.
#pragma once

#include <glib.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "disk_announcer.h"
#include "disk_probe.h"
#include "partition_mounter.h"
#include "zor_device.h"

namespace zor {

class UDiskOperator;

/// StartLoop runs the announcement once on a thread of its own; StopLoop must
/// precede the destruction. The other operations run on the caller's thread
/// and take no lock; UmountLocal must not overlap the service thread.
class UDiskService {
 public:
  /// Neither is owned; both must outlive the service.
  UDiskService(ZorDevice* device, UDiskOperator* op);
  ~UDiskService() = default;
  UDiskService(const UDiskService&) = delete;
  UDiskService& operator=(const UDiskService&) = delete;

  /// 0, or -1 when the thread cannot be created.
  int StartLoop();
  /// Waits for the thread. Always 0; may be called again.
  int StopLoop();
  static void* ServiceThread(void* service) noexcept;

  // See DiskAnnouncer.
  int MountRemote(char* name, ZorDevice* device) { return mAnnouncer.MountRemote(name, device); }
  void SetReadSmallFileTrubo() { mAnnouncer.SetReadSmallFileTrubo(); }
  int UpdateReadOnly(unsigned char readOnly) { return mAnnouncer.UpdateReadOnly(readOnly); }

  // See DiskProbe.
  int GetString(char* src, char* dst) { return DiskProbe::GetString(src, dst); }
  int GetDeviceClass(char* port) { return DiskProbe::GetDeviceClass(port); }
  int CheckRemovable(char* disk) { return DiskProbe::CheckRemovable(disk); }
  int GetDevName(char* out) { return DiskProbe::GetDevName(out); }
  /// The caller frees `out->parts` or hands it on with TakeDisk.
  int GetDeviceLabel(const char* dev, UdiskDevice* out) {
    return DiskProbe::GetDeviceLabel(dev, out);
  }
  /// Always -1: the framework's device has no such information on this platform.
  int GetDeviceInfo(ZorDevice* /*device*/, UdiskDevice* /*out*/) { return -1; }

  /// See PartitionMounter.
  int MountLocal(UDiskInfo* info) { return mMounter.MountLocal(info); }
  /// Unmounts every probed partition, removes the mount directories that MountLocal
  /// made and that are empty, forgets the disk and resets the mount point. 0, or -1 when
  /// there is no probed disk.
  int UmountLocal();
  /// Hands a probed disk over, replacing the one that is held. The service
  /// frees it in UmountLocal; `disk` comes from `new`, its `parts` from malloc.
  void TakeDisk(UdiskDevice* disk);

 private:
  void announceDisk();
  void readParameters(const std::string& text, char (&name)[256], char (&letter)[256],
                      char (&label)[256]);

  ZorDevice* mDevice;
  UDiskOperator* mOperator;
  GThread* mThread = nullptr;
  UdiskDevice* mUdiskDevice = nullptr;
  std::atomic<std::int32_t> mLoopState{0};
  DiskAnnouncer mAnnouncer;
  PartitionMounter mMounter;
};

/// Only checks its arguments: nothing ties probing to a device on this platform.
void GetUdiskInfo(void* pThis, ZorDevice* device, UDiskOperator* op);

}  // namespace zor
