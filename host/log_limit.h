// Throttling of log lines that repeat the same message.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace zor::host {

/// Lets so many lines of each message pass in a period, and so many in all. Lines are
/// of the same message when they are alike up to their call site, or, for lines that
/// name none, up to the first digit, quote or slash.
class LogLimit {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::uint64_t kPerMessage = 100;
  static constexpr std::size_t kMessages = 100;
  static constexpr auto kPeriod = std::chrono::seconds(10);

  /// False: the line is to be left out. A period that is over is reported first.
  bool admits(std::string_view line, Time now);

  /// When there is something to report, at the latest: calls report().
  bool isPending() const noexcept { return mLeftOut != 0; }
  Time periodEnd() const noexcept { return mEnd; }
  /// Ends the period: writes a line for each message of which lines were left out.
  void report();

  /// Where the lines about lines go.
  std::function<void(const std::string& line)> write;

 private:
  std::map<std::string, std::uint64_t, std::less<>> mCounts;
  std::uint64_t mLeftOut = 0;
  std::uint64_t mOthers = 0;  ///< of messages beyond kMessages
  Time mEnd;
};

}  // namespace zor::host
