#include "cli/console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "support/printable.h"

namespace zor::client::cli {

namespace {

constexpr std::size_t kBufferSize = std::size_t{64} << 10;

/// Writes everything; 0 or the reason why not.
int writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) return errno;
    if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

}  // namespace

Output::Output(int fd) : mFd(fd), mTerminal(::isatty(fd) == 1) {}

void Output::write(std::string_view bytes) {
  if (bytes.size() < kBufferSize) {
    mBuffer.append(bytes);
    if (mBuffer.size() >= kBufferSize) flush();
    return;
  }
  flush();
  writeNow(bytes);
}

void Output::flush() {
  writeNow(mBuffer);
  mBuffer.clear();
}

void Output::writeNow(std::string_view bytes) {
  const int reason = writeAll(mFd, bytes);
  if (reason == EPIPE) throw BrokenPipe();
  if (reason != 0) {
    throw std::system_error(
        reason, std::generic_category(),
        mFd == STDOUT_FILENO ? "cannot write standard output" : "cannot write the file");
  }
}

std::string Output::shown(std::string_view name) const {
  return mTerminal ? printable(name) : std::string(name);
}

Console::Console() : mTerminal(::isatty(STDERR_FILENO) == 1) {}

Console::~Console() { status(""); }

void Console::message(std::string_view text) {
  status("");
  print("udisk-remote: " + printable(text) + "\n");
}

bool Console::confirm(std::string_view question) {
  status("");
  print("udisk-remote: " + printable(question) + " ");
  char answer = '\0';
  for (char c = '\0'; c != '\n' && ::read(STDIN_FILENO, &c, 1) == 1;) {
    if (answer == '\0') answer = c;
  }
  return answer == 'y' || answer == 'Y';
}

void Console::status(std::string_view text) {
  if (!mTerminal || (text.empty() && !mStatusShown)) return;
  winsize window{};
  std::size_t width = 80;
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 1) width = window.ws_col;
  print("\r\x1b[K" + std::string(text.substr(0, width - 1)));
  mStatusShown = !text.empty();
  mLastStatus = std::chrono::steady_clock::now();
}

bool Console::statusDue() {
  return mTerminal &&
         std::chrono::steady_clock::now() - mLastStatus >= std::chrono::milliseconds(100);
}

void Console::print(const std::string& text) {
  static_cast<void>(writeAll(STDERR_FILENO, text));  // a failure cannot be reported anywhere
}

}  // namespace zor::client::cli
