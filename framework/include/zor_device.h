// The framework's device object, as a driver uses it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "zor_dev_base.h"
#include "zor_packet.h"

namespace zor {

/// Owned by the framework and valid from the driver's opening to its
/// destruction. Every operation may be called on any thread of the driver.
/// The order of the virtual operations is fixed.
class ZorDevice {
 public:
  /// The device's description; may be empty.
  virtual std::shared_ptr<ZorDevBase> GetDevBase() = 0;
  /// The identifier that the device's packets carry.
  virtual std::uint8_t GetDevId() = 0;
  /// Hands `packet` over for transmission. `timeoutMs` -1 waits as long as it
  /// takes. 0 when the packet was taken, a negative value when it was not.
  virtual int SendPacket(std::unique_ptr<ZorPacket> packet, int timeoutMs) = 0;
  /// Reports that reading the remote path `path` failed.
  virtual void NotifyReadFailure(const std::string& path) = 0;

 protected:
  ~ZorDevice() = default;
};

}  // namespace zor
