// Where the command line's output goes.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace zor::client::cli {

/// Thrown when the reader of an output has gone.
struct BrokenPipe {};

/// A descriptor that output goes to, standard output by default; buffered.
class Output {
 public:
  explicit Output(int fd = 1);

  bool isTerminal() const noexcept { return mTerminal; }

  /// Bytes as they are. Throws BrokenPipe or std::system_error.
  void write(std::string_view bytes);
  void flush();

  /// A name from the disk: escaped when a terminal would show it.
  std::string shown(std::string_view name) const;

 private:
  void writeNow(std::string_view bytes);

  const int mFd;
  bool mTerminal;
  std::string mBuffer;
};

/// Standard error: messages, and on a terminal a status line below them.
class Console {
 public:
  Console();
  ~Console();

  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  bool isTerminal() const noexcept { return mTerminal; }

  /// One message, escaped, behind the program's name.
  void message(std::string_view text);

  /// Replaces the status line; does nothing without a terminal.
  void status(std::string_view text);

  /// Asks a question on standard error, and reads the answer from standard input: whether it
  /// begins with a "y". Without an answer it is no.
  bool confirm(std::string_view question);

  /// Whether it is time for another status line (ten in a second at most).
  bool statusDue();

 private:
  void print(const std::string& text);

  bool mTerminal;
  bool mStatusShown = false;
  std::chrono::steady_clock::time_point mLastStatus{};
};

}  // namespace zor::client::cli
