#include "morvel_log.h"

#include <spdlog/spdlog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace zor {
namespace {

std::atomic<int> gLevel{kLogError};

spdlog::level::level_enum spdlogLevel(int level) noexcept {
  if (level >= kLogError) return spdlog::level::err;
  return level >= kLogDebug ? spdlog::level::debug : spdlog::level::trace;
}

// File names come from the disk and from the peer: a line break or an escape
// sequence in one must not forge a line or drive the reader's terminal.
std::string visible(const char* text) {
  std::string line;
  bool behindC2 = false;  // the lead byte of U+0080 to U+009F, control characters as well
  for (; *text != '\0'; ++text) {
    const auto byte = static_cast<unsigned char>(*text);
    const bool control = byte < 0x20 || byte == 0x7f || (behindC2 && byte < 0xa0);
    behindC2 = byte == 0xc2;
    if (control) {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      line += escaped;
    } else {
      line += *text;
    }
  }
  return line;
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
    spdlog::default_logger_raw()->log(
        spdlogLevel(level), spdlog::string_view_t("[" + std::string(tag) + "] " + visible(text)));
  } catch (...) {  // a line that cannot be written must not end the request
  }
  std::free(text);
}

}  // namespace zor
