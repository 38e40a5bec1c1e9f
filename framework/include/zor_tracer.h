// The process-wide source of trace ids.
#pragma once

#include <string>

namespace zor {

class ZorTracer {
 public:
  /// Never null; one for the process.
  static ZorTracer* GetInstance();
  ZorTracer(const ZorTracer&) = delete;
  ZorTracer& operator=(const ZorTracer&) = delete;

  /// A fresh id: 16 lower-case hexadecimal digits of a random 64-bit value.
  /// Thread-safe; ids are independent of one another.
  std::string GenerateTraceId() const;

 private:
  ZorTracer() = default;
};

}  // namespace zor
