// The disk service: announces the disk, and probes and mounts disks for a host
// that does that itself.
#pragma once

#include <glib.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "mount_directory.h"
#include "zor_device.h"

/// One partition. Every text ends with a zero byte.
struct UDiskInfo {
  char devPath[32];  ///< as the partition listing prints it, e.g. /dev/sdb1
  char label[32];    ///< the volume label, or the UUID where there is none
  char fsType[32];
  char mountPath[32];  ///< where MountLocal mounted it
};

namespace zor {

class UDiskOperator;

/// A probed disk. `parts` comes from the C allocator.
struct UdiskDevice {
  std::uint8_t partCount = 0;
  UDiskInfo* parts = nullptr;
};

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

  // service_loop.cpp
  /// 0, or -1 when the thread cannot be created.
  int StartLoop();
  /// Waits for the thread. Always 0; may be called again.
  int StopLoop();
  static void* ServiceThread(void* service) noexcept;

  // announcement.cpp
  /// Announces the disk under `name`, of at most 255 bytes. The result of
  /// sending, or -1 when `device` is not this service's device or has no base.
  int MountRemote(char* name, ZorDevice* device);
  /// Tells the remote side that small files can be read in batches.
  void SetReadSmallFileTrubo();
  /// Sets the flag that the next announcement carries, and makes every changing
  /// command fail while it is not 0. Always 0.
  int UpdateReadOnly(unsigned char readOnly);

  // local_mounting.cpp
  /// Mounts a partition at /media/LABEL, or at /media/DEVICE when the label makes no
  /// directory name, none that fits `mountPath`, or one that is taken: see
  /// MountDirectory. What the mount program returned (0 = mounted), or -1 when it
  /// could not be run.
  int MountLocal(UDiskInfo* info);
  /// Unmounts every probed partition, removes the mount directories that MountLocal
  /// made and that are empty, forgets the disk and resets the mount point. 0, or -1 when
  /// there is no probed disk.
  int UmountLocal();
  /// Hands a probed disk over, replacing the one that is held. The service
  /// frees it in UmountLocal; `disk` comes from `new`, its `parts` from malloc.
  void TakeDisk(UdiskDevice* disk);

  // probing.cpp
  /// Copies the first double-quoted part of `src` to `dst`, which must be as
  /// large as `src`; returns the number of bytes copied. A part without a
  /// closing quote gets no terminator.
  int GetString(char* src, char* dst);
  /// The interface class of the USB device at `port` (8: mass storage), or 0.
  int GetDeviceClass(char* port);
  /// 1 when the block device, e.g. "sdb", is removable, else 0.
  int CheckRemovable(char* disk);
  /// Writes the three letters of the first removable disk to `out`, at least
  /// four zeroed bytes; without one, the last disk looked at. Always 0.
  int GetDevName(char* out);
  /// The partitions that have a label or a UUID, of the disk that `dev` is a
  /// partition of. 0, or -1 when they cannot be listed. The caller frees
  /// `out->parts` or hands it on with TakeDisk.
  int GetDeviceLabel(const char* dev, UdiskDevice* out);
  /// Always -1: the framework's device does not tell on this platform.
  int GetDeviceInfo(ZorDevice* device, UdiskDevice* out);

 private:
  friend struct UDiskServicePeek;  // tests look at the state that has no accessor

  void announceDisk();
  void readParameters(const std::string& text, char (&name)[256], char (&letter)[256],
                      char (&label)[256]);

  ZorDevice* mDevice;
  UDiskOperator* mOperator;
  GThread* mThread = nullptr;
  UdiskDevice* mUdiskDevice = nullptr;
  std::atomic<std::int32_t> mLoopState{0};
  std::atomic<std::uint8_t> mReadOnly{0};
  std::vector<MountDirectory> mMountDirectories;  ///< of what MountLocal mounted
};

/// Only checks its arguments: nothing ties probing to a device on this platform.
void GetUdiskInfo(void* pThis, ZorDevice* device, UDiskOperator* op);

}  // namespace zor
