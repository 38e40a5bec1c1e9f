// What is on its way to one remote.
#pragma once

#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host/receive_budget.h"
#include "zor_packet.h"

namespace zor::host {

/// Writes packets to a stream socket, whole and in the order in which they
/// came, with no more system calls and wake-ups than are needed:
///
/// - A packet is written by the thread that brings it, as long as nobody waits
///   for that thread.
/// - While more requests are in flight, small ones for the most part, small packets
///   are gathered, to be written together: when there are enough of them, when the last request is
///   done with, or when they have waited for a moment.
/// - While more requests are in flight, a large packet is left to a thread of
///   the outbox, so that the next request is served meanwhile.
///
/// Any thread, but for the construction and destruction.
class Outbox {
 public:
  /// What may wait to be written, in bytes of memory, before whoever brings more
  /// waits as well; one packet may be larger. As much may be in the writer's hand.
  static constexpr std::size_t kMaxWaiting = std::size_t{4} << 20;

  /// `socket` and `budget` must outlive the outbox. A remote that reads nothing for the
  /// time limit that sending has on `socket` cannot be written to any more if it holds memory
  /// that others wait for. `failed` is called, on any thread, when the remote cannot be
  /// written to. Throws std::system_error when there is no thread to be had.
  Outbox(int socket, const ReceiveBudget& budget, std::function<void()> failed);
  ~Outbox();
  Outbox(const Outbox&) = delete;
  Outbox& operator=(const Outbox&) = delete;

  /// Takes `size` bytes of `packet` over. Waits while too much is waiting. False
  /// when the outbox has ended: nothing is written any more.
  bool send(std::unique_ptr<ZorPacket> packet, std::size_t size);

  /// Writes what was gathered. Cheap when there is nothing.
  void flush();

  /// Says whether somebody is about to look for more requests and to call
  /// `flushUnlessHeld` then: until then a reply to the last one is gathered as well.
  void hold(bool on) noexcept { mHeld = on; }
  void flushUnlessHeld() {
    if (!mHeld) flush();
  }

  /// Waits until everything is written, or the outbox has ended.
  void drain();

  /// From now on nothing more is written. Whoever waits returns, and what waits is dropped.
  void end() noexcept;

  /// How many bytes were written.
  std::uint64_t written() const noexcept { return mWrittenBytes.load(std::memory_order_relaxed); }

 private:
  using Lock = std::unique_lock<std::mutex>;
  struct Item {
    std::unique_ptr<ZorPacket> packet;
    std::size_t size;
  };

  void writeAll(Lock& lock);
  bool writeItems() noexcept;
  bool writeParts(iovec* parts, std::size_t count) noexcept;
  void run();
  void waitForTheGathered(Lock& lock);

  const int mSocket;
  const ReceiveBudget& mBudget;
  const std::function<void()> mFailed;

  std::mutex mMutex;              ///< guards what follows
  std::condition_variable mWake;  ///< of the outbox's own thread
  std::condition_variable mRoom;
  std::vector<Item> mWaiting;
  std::vector<Item> mInHand;  ///< the writer's alone, while mWriting
  std::size_t mWaitingBytes = 0;
  std::uint64_t mWrites = 0;
  bool mWriting = false;
  bool mHandedOver = false;  ///< the own thread is to write
  bool mGathering = false;   ///< the own thread looks after what was gathered
  bool mEnded = false;
  std::atomic<bool> mAnyGathered{false};  ///< for a look without the lock
  std::atomic<bool> mHeld{false};
  std::atomic<std::uint64_t> mWrittenBytes{0};
  std::thread mThread;
};

}  // namespace zor::host
