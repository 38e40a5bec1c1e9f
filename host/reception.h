// Receiving what one remote sends.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>

#include "host/frame_reader.h"
#include "host/remote_link.h"
#include "zor_driver.h"
#include "zor_request_source.h"

namespace zor::host {

/// Reads packets and hands them to the driver, in order, on the thread of `run`.
///
/// While small requests follow each other, that thread lends the reading to the
/// driver's data-event thread, if it asks: that one then finds the next requests
/// without another thread having to be woken, and how many there are before the
/// replies go out. The thread of `run` takes the reading back when the data-event
/// thread gives it up, which it does when it would have to wait for long or for the
/// rest of a packet, and when it is busy for some milliseconds. So a request
/// that takes long holds up neither notifications nor the news of the remote's leaving.
class Reception final : public RequestSource {
 public:
  /// `link` must outlive the reception.
  explicit Reception(RemoteLink& link) : mLink(link) {}

  /// Delivers to `driver` until the stream is over. Once. Throws what the driver
  /// throws, on whichever thread.
  void run(ZorDriver& driver);

  void poll() noexcept override;
  bool await() noexcept override;
  bool deliversReplies() noexcept override { return !mLink.ended() && !mLink.remoteGone(); }

  /// How many packets came.
  std::uint64_t packets() const noexcept { return mPackets.load(std::memory_order_relaxed); }

 private:
  using Lock = std::unique_lock<std::mutex>;
  enum class Delivered { kAll, kSome, kOver };

  bool receive();
  Delivered deliver(Patience patience);
  void endBadStream(FrameReader::Status status);
  bool worthLending() noexcept;
  void lend();
  void takeBack() noexcept;
  void receiveLent() noexcept;

  RemoteLink& mLink;
  // Both during `run`, and of its thread; while mLent guarded by mMutex.
  FrameReader* mFrames = nullptr;
  ZorDriver* mDriver = nullptr;
  std::atomic<std::uint64_t> mPackets{0};
  std::atomic<bool> mAsked{false};   ///< the driver does ask
  std::atomic<bool> mAsleep{false};  ///< its thread waits to be called; becomes true under mMutex

  std::mutex mMutex;  ///< guards what follows
  std::condition_variable mTurn;
  std::atomic<bool> mLent{false};  ///< also for a look without the lock
  bool mAwaiting = false;          ///< the data-event thread waits for more
  std::uint64_t mTurns = 0;        ///< how often it came
  std::exception_ptr mFailure;     ///< what the driver threw there
};

}  // namespace zor::host
