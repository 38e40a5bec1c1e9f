#include "client/metrics.h"

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

// Every command that is awaited has a slot of its own.
static_assert([] {
  for (std::uint16_t code = 0; code < wire::kFirstBusEvent; ++code) {
    const auto command = static_cast<wire::Command>(code);
    const bool shared = MetricsSnapshot::slot(command) == MetricsSnapshot::kSlots - 1;
    if (shared && !traitsOf(command).name.empty()) return false;
  }
  return true;
}());

const CommandCounts& MetricsSnapshot::of(wire::Command command) const noexcept {
  return mCounts[slot(command)];
}

CommandCounts MetricsSnapshot::total() const noexcept {
  CommandCounts sum;
  for (const CommandCounts& each : mCounts) {
    sum.requests += each.requests;
    sum.repeats += each.repeats;
    sum.bytesSent += each.bytesSent;
    sum.bytesReceived += each.bytesReceived;
  }
  return sum;
}

void Metrics::sent(wire::Command command, std::uint64_t bytes, bool repeat,
                   bool startsTrip) noexcept {
  Counters& counters = mCounters[MetricsSnapshot::slot(command)];
  add(repeat ? counters.repeats : counters.requests, 1);
  add(counters.bytesSent, bytes);
  if (startsTrip) add(mRoundTrips, 1);
}

void Metrics::received(wire::Command command, std::uint64_t bytes) noexcept {
  add(mCounters[MetricsSnapshot::slot(command)].bytesReceived, bytes);
}

void Metrics::reconnected() noexcept { add(mReconnects, 1); }

MetricsSnapshot Metrics::snapshot() const noexcept {
  MetricsSnapshot snapshot;
  for (std::size_t i = 0; i < mCounters.size(); ++i) {
    const Counters& from = mCounters[i];
    snapshot.mCounts[i] = {value(from.requests), value(from.repeats), value(from.bytesSent),
                           value(from.bytesReceived)};
  }
  snapshot.roundTrips = value(mRoundTrips);
  snapshot.reconnects = value(mReconnects);
  return snapshot;
}

std::string describe(const MetricsSnapshot& metrics) {
  std::string text;
  for (std::uint16_t code = 0; code < wire::kFirstBusEvent; ++code) {
    const auto command = static_cast<wire::Command>(code);
    const std::string_view name = traitsOf(command).name;
    const CommandCounts& counts = metrics.of(command);
    if (!name.empty() && counts.requests != 0) text += line(name, counts);
  }
  return text + line("total", metrics.total()) +
         "round trips: " + std::to_string(metrics.roundTrips) +
         "\nreconnects: " + std::to_string(metrics.reconnects) + '\n';
}

}  // namespace zor::client
