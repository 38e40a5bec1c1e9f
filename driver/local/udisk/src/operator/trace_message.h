// Where a trace event is emitted, as its text names it.
#pragma once

#include "morvel_log.h"

namespace zor {

struct TracePlace {
  const char* file;
  const char* function;
  int line;
};

}  // namespace zor

#define UDISK_TRACE_PLACE \
  ::zor::TracePlace { ::zor::sourceBaseName(__FILE__), __func__, __LINE__ }
