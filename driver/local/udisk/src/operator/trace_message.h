// The text of a trace event: where it was emitted, and what happened.
#pragma once

#include <string>
#include <string_view>

#include "morvel_log.h"

namespace zor {

inline std::string traceMessage(const char* file, const char* function, int line,
                                std::string_view text) {
  std::string message = "[";
  message.append(file).append(" ").append(function);
  message.append("(").append(std::to_string(line)).append(")] ");
  return message.append(text);
}

}  // namespace zor

#define UDISK_TRACE_MESSAGE(text) \
  ::zor::traceMessage(::zor::sourceBaseName(__FILE__), __func__, __LINE__, text)
