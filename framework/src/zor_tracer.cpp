#include "zor_tracer.h"

#include <cstdint>
#include <cstdio>
#include <random>

namespace zor {

ZorTracer* ZorTracer::GetInstance() {
  static ZorTracer tracer;
  return &tracer;
}

std::string ZorTracer::GenerateTraceId() const {
  std::random_device source("/dev/urandom");
  std::mt19937_64 engine(source());
  const std::uint64_t value = std::uniform_int_distribution<std::uint64_t>()(engine);
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
  return text;
}

}  // namespace zor
