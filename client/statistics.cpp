#include "client/statistics.h"

#include <string_view>

#include "client/command_traits.h"

namespace zor::client {

namespace {

void add(std::atomic<std::uint64_t>& counter, std::uint64_t count) noexcept {
  counter.fetch_add(count, std::memory_order_relaxed);
}

std::uint64_t value(const std::atomic<std::uint64_t>& counter) noexcept {
  return counter.load(std::memory_order_relaxed);
}

std::string line(std::string_view name, const CommandCounts& counts) {
  std::string text(name);
  text += ": " + std::to_string(counts.requests) + " requests, " +
          std::to_string(counts.bytesSent) + " bytes sent, " +
          std::to_string(counts.bytesReceived) + " bytes received";
  if (counts.repeats != 0) text += ", " + std::to_string(counts.repeats) + " sent again";
  return text + '\n';
}

}  // namespace

std::size_t StatisticsSnapshot::slot(wire::Command command) noexcept {
  const std::size_t first = wire::code(wire::Command::kMountRemote);
  const std::size_t code = wire::code(command);
  return code >= first && code - first < kSlots - 1 ? code - first : kSlots - 1;
}

const CommandCounts& StatisticsSnapshot::of(wire::Command command) const noexcept {
  return mCounts[slot(command)];
}

CommandCounts StatisticsSnapshot::total() const noexcept {
  CommandCounts sum;
  for (const CommandCounts& each : mCounts) {
    sum.requests += each.requests;
    sum.repeats += each.repeats;
    sum.bytesSent += each.bytesSent;
    sum.bytesReceived += each.bytesReceived;
  }
  return sum;
}

void Statistics::sent(wire::Command command, std::uint64_t bytes, bool repeat,
                      bool startsTrip) noexcept {
  Counters& counters = mCounters[StatisticsSnapshot::slot(command)];
  add(repeat ? counters.repeats : counters.requests, 1);
  add(counters.bytesSent, bytes);
  if (startsTrip) add(mRoundTrips, 1);
}

void Statistics::received(wire::Command command, std::uint64_t bytes) noexcept {
  add(mCounters[StatisticsSnapshot::slot(command)].bytesReceived, bytes);
}

void Statistics::reconnected() noexcept { add(mReconnects, 1); }

StatisticsSnapshot Statistics::snapshot() const noexcept {
  StatisticsSnapshot snapshot;
  for (std::size_t i = 0; i < mCounters.size(); ++i) {
    const Counters& from = mCounters[i];
    snapshot.mCounts[i] = {value(from.requests), value(from.repeats), value(from.bytesSent),
                           value(from.bytesReceived)};
  }
  snapshot.roundTrips = value(mRoundTrips);
  snapshot.reconnects = value(mReconnects);
  return snapshot;
}

std::string describe(const StatisticsSnapshot& statistics) {
  std::string text;
  for (const CommandTraits& traits : kCommandTraits) {
    const CommandCounts& counts = statistics.of(traits.command);
    if (counts.requests != 0) text += line(traits.name, counts);
  }
  return text + line("total", statistics.total()) +
         "round trips: " + std::to_string(statistics.roundTrips) +
         "\nreconnects: " + std::to_string(statistics.reconnects) + '\n';
}

}  // namespace zor::client
