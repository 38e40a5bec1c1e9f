// Where the command line's output goes.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace zor::remote::cli {

/// Thrown when the reader of standard output has gone.
struct BrokenPipe {};

/// Standard output, buffered.
class Output {
 public:
  Output();

  bool isTerminal() const noexcept { return mTerminal; }

  /// Bytes as they are. Throws BrokenPipe or std::system_error.
  void write(std::string_view bytes);
  void flush();

  /// A name from the disk: escaped when a terminal would show it.
  std::string shown(std::string_view name) const;

 private:
  void writeNow(std::string_view bytes);

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

  /// Whether it is time for another status line (ten in a second at most).
  bool statusDue();

 private:
  void print(const std::string& text);

  bool mTerminal;
  bool mStatusShown = false;
  std::chrono::steady_clock::time_point mLastStatus{};
};

}  // namespace zor::remote::cli
