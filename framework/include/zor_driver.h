// What a driver module offers the framework: the driver base classes and the
// descriptor through which the loader finds the module.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "zor_packet.h"

namespace zor {

class ZorDevice;

/// The part of a driver that the framework may hold on to by itself.
class DriverObj {
 public:
  virtual ~DriverObj() = default;
  virtual int GetCID() = 0;
  virtual int GetVid() = 0;
  virtual int GetPid() = 0;
  virtual std::string GetDrvName() = 0;
  virtual std::uint8_t GetDevId() = 0;
  virtual void Stop() = 0;
};

/// A driver serves one device. The framework calls these operations through
/// the order in which they stand here; do not reorder them.
///
/// The loader opens a driver, delivers events from any of its threads (bus
/// events one at a time), calls `Close` once no delivery is under way, and
/// then destroys the driver.
class ZorDriver {
 public:
  virtual ~ZorDriver();
  /// A request packet. 0 when taken (or dropped), -1 when it is not for this device.
  virtual int onEvent(std::unique_ptr<ZorPacket> packet, int flags) = 0;
  virtual int onReserved() = 0;
  /// A notification; handled before the call returns.
  virtual int onBusEvent(std::shared_ptr<ZorPacket> packet) = 0;
  virtual int onPolicyChange(const std::string& policy) = 0;
  virtual int onControl(void* argument, std::uint16_t* code) = 0;
  virtual int Close(signed char reason) = 0;
  virtual std::string GetDriverType() = 0;
  virtual std::shared_ptr<DriverObj> GetDriverObj() = 0;
};

/// Defaults for drivers that take raw packets.
class ZorRawDriver : public ZorDriver {
 public:
  ~ZorRawDriver() override;
  int onReserved() override;
  int onControl(void* argument, std::uint16_t* code) override;
  std::string GetDriverType() override;
  std::shared_ptr<DriverObj> GetDriverObj() override;
};

/// The record that a module exports as `ZOR_DRV_MODULE`. The loader reads it
/// byte for byte.
struct ZorDriverModule {
  /// Opens a driver for `device`; null on failure. The caller owns the driver.
  ZorDriver* (*open)(ZorDevice* device, const std::string& params);
  std::uint64_t reserved;
  std::uint16_t info[4];
  const char* name;
};
static_assert(sizeof(ZorDriverModule) == 32);

inline constexpr char kDriverModuleSymbol[] = "ZOR_DRV_MODULE";

}  // namespace zor
