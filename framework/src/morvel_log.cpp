#include "morvel_log.h"

#include <spdlog/spdlog.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <string>

#include "support/printable.h"

namespace zor {
namespace {

std::atomic<int> gLevel{kLogError};

spdlog::level::level_enum spdlogLevel(int level) noexcept {
  if (level >= kLogError) return spdlog::level::err;
  return level >= kLogDebug ? spdlog::level::debug : spdlog::level::trace;
}

}  // namespace

void morvelLogSetLevel(int level) noexcept { gLevel.store(level, std::memory_order_relaxed); }

bool morvelLogEnabled(int level) noexcept {
  return level >= gLevel.load(std::memory_order_relaxed);
}

void morvelLogPrint(int /*channel*/, int level, const char* tag, const char* format, ...) noexcept {
  if (!morvelLogEnabled(level)) return;
  char* text = nullptr;
  std::va_list arguments;
  va_start(arguments, format);
  const int length = ::vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  try {
    // File names come from the disk and from the peer.
    spdlog::default_logger_raw()->log(
        spdlogLevel(level), spdlog::string_view_t("[" + std::string(tag) + "] " + printable(text)));
  } catch (...) {  // a line that cannot be written must not end the request
  }
  std::free(text);
}

}  // namespace zor
