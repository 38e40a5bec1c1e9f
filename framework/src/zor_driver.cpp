#include "zor_driver.h"

namespace zor {

namespace {
// What a driver without controls of its own answers to every control.
constexpr std::uint16_t kControlNotSupported = 0x1506;
}  // namespace

ZorDriver::~ZorDriver() = default;
ZorRawDriver::~ZorRawDriver() = default;

int ZorRawDriver::onReserved() { return 0; }

int ZorRawDriver::onControl(void* /*argument*/, std::uint16_t* code) {
  *code = kControlNotSupported;
  return -1;
}

std::string ZorRawDriver::GetDriverType() { return "RawDrv"; }

std::shared_ptr<DriverObj> ZorRawDriver::GetDriverObj() { return nullptr; }

}  // namespace zor
