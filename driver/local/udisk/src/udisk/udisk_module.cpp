// What the framework's loader finds in this library.
#include <memory>

#include "morvel_log.h"
#include "udisk_driver.h"

namespace zor {

ZorDriver* udisk_open(ZorDevice* device, const std::string& params) {
  MORVEL_DEBUG(kLogDebug, "client udisk open\n");
  auto driver = std::make_unique<UDiskDriver>(device, params.c_str());
  if (driver->Init() == -1) {
    MORVEL_ERROR("udisk_open Init failed");
    return nullptr;
  }
  return driver.release();
}

}  // namespace zor

extern "C" {
// Not const: a const object would stay private to this library.
__attribute__((visibility("default"))) constinit zor::ZorDriverModule ZOR_DRV_MODULE = {
    &zor::udisk_open, 0, {2, 0xFFFF, 0xFFFF, 0}, "udisk-redir"};
}
