#include "mount/messages.h"

#include <syslog.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "mount/fuse.h"
#include "support/printable.h"

namespace zor::client::mount {
namespace {

std::atomic<bool> sSystemLog{false};
std::string* sCapture = nullptr;

constexpr std::string_view kFusePrefix = "fuse: ";

void toTerminal(const std::string& line) {
  std::fprintf(stderr, "udisk-mount: %s\n", line.c_str());
}

void toLog(const std::string& line) {
  static const bool opened = (::openlog("udisk-mount", LOG_PID, LOG_DAEMON), true);
  if (opened) ::syslog(LOG_NOTICE, "%s", line.c_str());
}

void forEachLine(std::string_view text, void (*take)(const std::string&)) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    take(printable(text.substr(0, end)));
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
  } else if (!sSystemLog.load(std::memory_order_relaxed)) {
    std::fputs(text.data(), stderr);
  }
}

}  // namespace

void report(std::string_view text) {
  forEachLine(text, sSystemLog.load(std::memory_order_relaxed) ? toLog : toTerminal);
}

void reportLoss(std::string_view text) {
  if (!sSystemLog.load(std::memory_order_relaxed)) forEachLine(text, toTerminal);
  forEachLine(text, toLog);
}

void useSystemLog() { sSystemLog = true; }

void adoptFuseMessages() { fuse_set_log_func(takeFuseMessage); }

FuseMessages::FuseMessages() {
  sCapture = new std::string;
  adoptFuseMessages();
}

FuseMessages::~FuseMessages() {
  delete sCapture;
  sCapture = nullptr;
}

std::string FuseMessages::text() const {
  std::string text = *sCapture;
  while (!text.empty() && text.back() == '\n') text.pop_back();
  if (text.starts_with(kFusePrefix)) text.erase(0, kFusePrefix.size());
  return text;
}

}  // namespace zor::client::mount
