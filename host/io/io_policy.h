// When the threads of one connection receive, coalesce and write.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>

namespace zor::host {

/// All decisions about a connection's input and output, and the one state that they depend on.
///
/// The reader role, as of a leader among followers, belongs to one thread at a time: to the
/// connection thread at first. It is handed off to the driver's data-event thread once that
/// thread asks for requests, and is taken back when that thread is busy for long or gives up.
///
/// Small replies are coalesced while more requests are in flight, small ones for the most part.
///
/// `ask`, `wake` and `isHandedOff` may be called on any thread; everything else that uses the
/// state by one thread at a time.
class IoPolicy {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// A larger request arrives in pieces, and the next one can arrive while one is served. To
  /// write a larger reply costs more than a system call saved.
  static constexpr std::size_t kMaxSmallPacket = std::size_t{16} << 10;
  static constexpr std::size_t kMaxCoalescedBytes = std::size_t{64} << 10;
  static constexpr std::size_t kMaxCoalescedReplies = 12;
  /// To write less is over sooner than another thread has woken up.
  static constexpr std::size_t kMinHandedOver = std::size_t{128} << 10;
  static constexpr std::size_t kMaxHandedOver = std::size_t{4} << 20;
  /// For how long a reply may wait because the next request takes long: for up to two of these.
  static constexpr auto kCoalescingTime = std::chrono::milliseconds(1);
  /// For how long the data-event thread may keep the reader role without reading: for up to two
  /// of these.
  static constexpr auto kMaxBusyTime = std::chrono::milliseconds(4);
  /// A client that sends nothing for so long is no longer in a hurry.
  static constexpr auto kMaxIdleTime = std::chrono::milliseconds(20);

  // Reading.

  /// The data-event thread asks for requests, with or without the reader role.
  void ask() noexcept {
    if (!change(State::kBusy, State::kAsking)) change(State::kAsleep, State::kAsking);
  }
  /// A request wakes the data-event thread, which will ask before it sleeps again.
  void wake() noexcept { change(State::kAsleep, State::kAsking); }

  /// Whether to hand off behind a packet of `length` bytes. A thread that does not ask, or
  /// sleeps, would leave requests unread.
  bool wantsHandOff(std::size_t length) const noexcept {
    return length <= kMaxSmallPacket && state() == State::kAsking;
  }
  /// False when that thread has fallen asleep meanwhile.
  bool handOff(Time now) noexcept {
    mLastRead = now;
    return change(State::kAsking, State::kHandedOff);
  }
  bool isHandedOff() const noexcept { return state() >= State::kHandedOff; }
  /// Whether the role is to be taken back from a thread that does not come to read.
  bool isOverdue(Time now) const noexcept {
    return state() == State::kHandedOff && now - mLastRead >= kMaxBusyTime;
  }
  void takeBack() noexcept {
    if (isHandedOff()) mState = State::kBusy;
  }

  /// The data-event thread, while it has the role, reads, waits for something to read, or gives
  /// the role up.
  void read(Time now) noexcept {
    mLastRead = now;
    mState = State::kHandedOff;
  }
  void waitToRead() noexcept { mState = State::kWaiting; }
  void giveUp() noexcept { mState = State::kAsking; }
  /// Without the role it waits to be woken.
  void sleep() noexcept { mState = State::kAsleep; }

  // Writing.

  struct Requests {
    std::size_t count = 0, bytes = 0;
  };
  struct Replies {
    std::size_t count = 0, bytes = 0;
  };
  /// Whether a reply of `size` bytes waits for others. `inFlight` counts its request as well,
  /// `waiting` the reply. Clients that send much in each request prepare the next one meanwhile.
  static bool coalesces(std::size_t size, Requests inFlight, Replies waiting) noexcept {
    return inFlight.count > 1 && size <= kMaxSmallPacket &&
           inFlight.bytes <= inFlight.count * kMaxSmallPacket &&
           waiting.bytes < kMaxCoalescedBytes && waiting.count < kMaxCoalescedReplies;
  }
  /// Whether another thread writes a reply, while the next request is served.
  static bool handsOver(std::size_t size, Requests inFlight, Replies waiting) noexcept {
    return inFlight.count > 1 && size >= kMinHandedOver && waiting.bytes <= kMaxHandedOver &&
           waiting.count < kMaxCoalescedReplies;
  }

 private:
  // Of the data-event thread; from kHandedOff on it has the reader role.
  enum class State { kBusy, kAsking, kAsleep, kHandedOff, kWaiting };

  State state() const noexcept { return mState.load(std::memory_order_acquire); }
  bool change(State from, State to) noexcept {
    return state() == from && mState.compare_exchange_strong(from, to);
  }

  std::atomic<State> mState{State::kBusy};
  Time mLastRead;
};

}  // namespace zor::host
