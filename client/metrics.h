// Counting what crosses a link.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "protocol/commands.h"

namespace zor::client {

struct CommandCounts {
  std::uint64_t requests = 0;       ///< without repeats, fences and what was never sent
  std::uint64_t repeats = 0;        ///< sent again over a new connection
  std::uint64_t bytesSent = 0;      ///< behind the headers; with repeats and fences
  std::uint64_t bytesReceived = 0;  ///< behind the headers, of the answers
};

/// Counts as they were at about one moment.
class MetricsSnapshot {
 public:
  const CommandCounts& of(wire::Command command) const noexcept;
  std::uint64_t requests(wire::Command command) const noexcept { return of(command).requests; }
  CommandCounts total() const noexcept;

  /// How often a request was sent while no other was in flight: requests that
  /// travel together count as one.
  std::uint64_t roundTrips = 0;
  std::uint64_t reconnects = 0;

  static constexpr std::size_t kSlots = 25;  ///< codes from 100 on; the last is for all others
  static constexpr std::size_t slot(wire::Command command) noexcept {
    constexpr std::size_t kFirst = wire::code(wire::Command::kMountRemote);
    const std::size_t code = wire::code(command);
    return code >= kFirst && code - kFirst < kSlots - 1 ? code - kFirst : kSlots - 1;
  }

 private:
  friend class Metrics;
  std::array<CommandCounts, kSlots> mCounts{};
};

/// May be used from any thread.
class Metrics {
 public:
  /// `startsTrip`: nothing else was in flight.
  void sent(wire::Command command, std::uint64_t bytes, bool repeat, bool startsTrip) noexcept;
  void received(wire::Command command, std::uint64_t bytes) noexcept;
  void reconnected() noexcept;

  MetricsSnapshot snapshot() const noexcept;

 private:
  using Counter = std::atomic<std::uint64_t>;
  struct Counters {
    Counter requests{0};
    Counter repeats{0};
    Counter bytesSent{0};
    Counter bytesReceived{0};
  };

  std::array<Counters, MetricsSnapshot::kSlots> mCounters;
  Counter mRoundTrips{0};
  Counter mReconnects{0};
};

/// A line for each command that was used, then the totals; each ends with a
/// line feed.
std::string describe(const MetricsSnapshot& metrics);

}  // namespace zor::client
