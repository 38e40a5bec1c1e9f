// The attribute keys that all modules of the framework share.
#pragma once

#include <array>

namespace zor {

/// Indices into `kTraceKeys`, for the keys that this project fills.
enum TraceKey : unsigned {
  kTraceKeyMessage = 5,
  kTraceKeyProductName = 9,
  kTraceKeyStatus = 14,
  kTraceKeySuccess = 23,
};

extern const std::array<const char*, 36> kTraceKeys;

}  // namespace zor
