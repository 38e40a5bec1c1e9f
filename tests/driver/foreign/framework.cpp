// The least that a framework library has: what a module may need of it, and nothing else.
#include <cstdarg>
#include <cstdio>

#include "morvel_log.h"
#include "zor_dev_base.h"
#include "zor_driver.h"
#include "zor_tracer.h"

namespace zor {

void morvelLogPrint(int, int, const char*, const char* format, ...) noexcept {
  char line[512];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
}

ZorDriver::~ZorDriver() = default;
ZorRawDriver::~ZorRawDriver() = default;
int ZorRawDriver::onReserved() { return 0; }
int ZorRawDriver::onControl(void*, std::uint16_t* code) { return *code = 0x1506, -1; }
std::string ZorRawDriver::GetDriverType() { return "RawDrv"; }
std::shared_ptr<DriverObj> ZorRawDriver::GetDriverObj() { return nullptr; }

std::shared_ptr<ZorPathEntry> ZorPathTable::Lookup(const std::string&) const {
  return std::make_shared<ZorPathEntry>();
}

ZorTracer* ZorTracer::GetInstance() {
  static ZorTracer tracer;
  return &tracer;
}
std::string ZorTracer::GenerateTraceId() const { return "0123456789abcdef"; }

}  // namespace zor
