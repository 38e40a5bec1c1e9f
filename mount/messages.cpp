#include "mount/messages.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>

#include <array>
#include <cstdarg>
#include <cstdio>

#include "mount/fuse.h"
#include "support/printable.h"

namespace zor::client::mount {
namespace {

using spdlog::level::level_enum;

std::string* sCapture = nullptr;

constexpr std::string_view kFusePrefix = "fuse: ";

/// In the foreground the system's log takes errors only; in the background it takes all.
struct Log {
  Log() {
    terminal->set_pattern("udisk-mount: %v");
    system->set_level(level_enum::err);
  }

  std::shared_ptr<spdlog::sinks::sink> terminal = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  std::shared_ptr<spdlog::sinks::sink> system =
      std::make_shared<spdlog::sinks::syslog_sink_mt>("udisk-mount", LOG_PID, LOG_DAEMON, false);
  spdlog::logger logger{"udisk-mount", {terminal, system}};
};

Log& log() {
  static Log sLog;
  return sLog;
}

void logLines(level_enum level, std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    log().logger.log(level, printable(text.substr(0, end)));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
}

// libfuse sends some lines in several pieces.
__attribute__((format(printf, 2, 0))) void takeFuseMessage(fuse_log_level level, const char* form,
                                                           va_list values) {
  std::array<char, 1024> text{};
  const int length = std::vsnprintf(text.data(), text.size(), form, values);
  if (length <= 0) return;
  if (sCapture != nullptr) {
    sCapture->append(text.data());
  } else if (level != FUSE_LOG_DEBUG) {
    report(text.data());
  } else {
    std::fputs(text.data(), stderr);
  }
}

}  // namespace

void report(std::string_view text) { logLines(level_enum::info, text); }

void reportLoss(std::string_view text) { logLines(level_enum::err, text); }

void useSystemLog() {
  log().terminal->set_level(level_enum::off);
  log().system->set_level(level_enum::info);
}

void adoptFuseMessages() { fuse_set_log_func(takeFuseMessage); }

FuseMessages::FuseMessages() {
  sCapture = &mText;
  adoptFuseMessages();
}

FuseMessages::~FuseMessages() { sCapture = nullptr; }

std::string FuseMessages::text() const {
  std::string text = mText.substr(0, mText.find_last_not_of('\n') + 1);
  if (text.starts_with(kFusePrefix)) text.erase(0, kFusePrefix.size());
  return text;
}

}  // namespace zor::client::mount
