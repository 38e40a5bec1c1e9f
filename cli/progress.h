// How far a transfer has come.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "cli/console.h"

namespace zor::client::cli {

/// A progress bar on a terminal, and a sentence at the end.
class Progress {
 public:
  explicit Progress(Console& console) : mConsole(console) {}

  void expect(std::uint64_t files, std::uint64_t bytes) {
    mFiles += files;
    mBytes += bytes;
  }
  void moved(std::uint64_t bytes);
  void undone(std::uint64_t bytes) { mBytesDone -= bytes; }
  void finished() { ++mFilesDone; }

  /// Files that were expected and have not finished.
  std::uint64_t missing() const { return mFiles - mFilesDone; }

  /// Reports how much was `done` ("fetched"), and how many failures there were.
  void summary(std::string_view done, std::uint64_t failures);

 private:
  void show();

  using Clock = std::chrono::steady_clock;

  Console& mConsole;
  std::uint64_t mFiles = 0;
  std::uint64_t mFilesDone = 0;
  std::uint64_t mBytes = 0;
  std::uint64_t mBytesDone = 0;
  Clock::time_point mStart = Clock::now();
};

}  // namespace zor::client::cli
