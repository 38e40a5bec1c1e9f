// Which removable disk is plugged in and what is on it.
#pragma once

#include <cstdint>

/// One partition. Every text ends with a zero byte.
struct UDiskInfo {
  char devPath[32];  ///< as the partition listing prints it, e.g. /dev/sdb1
  char label[32];    ///< the volume label, or the UUID where there is none
  char fsType[32];
  char mountPath[32];  ///< where it was mounted
};

namespace zor {

/// A probed disk. `parts` comes from the C allocator.
struct UdiskDevice {
  std::uint8_t partCount = 0;
  UDiskInfo* parts = nullptr;
};

/// Reads the system's tables and the partition listing of the blkid program. Stateless;
/// any thread.
class DiskProbe {
 public:
  /// Copies the first double-quoted part of `src` to `dst`, which must be as
  /// large as `src`; returns the number of bytes copied. A part without a
  /// closing quote gets no terminator.
  static int GetString(char* src, char* dst);
  /// The interface class of the USB device at `port` (8: mass storage), or 0.
  static int GetDeviceClass(char* port);
  /// 1 when the block device, e.g. "sdb", is removable, else 0.
  static int CheckRemovable(char* disk);
  /// Writes the three letters of the first removable disk to `out`, at least
  /// four zeroed bytes; without one, those of the last disk in the table. Always 0.
  static int GetDevName(char* out);
  /// The partitions that have a label or a UUID, of the disk that `dev` is a
  /// partition of. 0, or -1 when they cannot be listed. The caller frees `out->parts`.
  static int GetDeviceLabel(const char* dev, UdiskDevice* out);
};

}  // namespace zor
