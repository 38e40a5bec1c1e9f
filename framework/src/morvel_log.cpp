#include "morvel_log.h"

#include <spdlog/spdlog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "support/printable.h"

namespace zor {
namespace {

std::atomic<int> gLevel{kLogError};

// Two paths of 4,096 bytes, and the words around them.
constexpr std::size_t kMaxText = 10'240;

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
  try {
    char text[kMaxText + 1];
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0) return;
    // File names come from the disk and from the peer.
    std::string line = "[" + std::string(tag) + "] " + printable(text);
    if (static_cast<std::size_t>(length) > kMaxText) {
      line += " (cut, " + std::to_string(length) + " bytes)";
    }
    spdlog::default_logger_raw()->log(spdlogLevel(level), line);
  } catch (...) {  // a line that cannot be written must not end the request
  }
}

}  // namespace zor
