// Receiving the requests of one client.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>

#include "host/io/client_stream.h"
#include "host/io/frame_reader.h"
#include "host/io/io_policy.h"
#include "support/mutex.h"
#include "zor_driver.h"
#include "zor_request_source.h"

namespace zor::host {

/// Reads packets and hands them to the driver, in order, on the thread of `run`.
///
/// While small requests follow each other, that thread hands the reader role off to the
/// driver's data-event thread (leader/follower), which then finds the next requests without a
/// wake-up of another thread. IoPolicy decides when. A request that takes long delays
/// neither notifications nor the notice that the client has left.
class Receiver final : public RequestSource {
 public:
  /// `stream` must outlive the receiver.
  explicit Receiver(ClientStream& stream) : mStream(stream) {}

  /// Delivers to `driver` until the stream is over. Once. Throws what the driver
  /// throws, on whichever thread.
  void run(ZorDriver& driver);

  void poll() noexcept override;
  bool await() noexcept override;
  bool deliversReplies() noexcept override { return !mStream.ended() && !mStream.clientGone(); }

  /// How many packets came.
  std::uint64_t packets() const noexcept { return mPackets.load(std::memory_order_relaxed); }

 private:
  enum class Delivered { kAll, kSome, kOver };

  bool receive();
  Delivered deliver(Waiting waiting);
  void endBadStream(FrameReader::Status status);
  void handOff();
  void receiveHandedOff() noexcept REQUIRES(mMutex);

  ClientStream& mStream;
  // Both belong to the thread that has the reader role.
  FrameReader* mFrames = nullptr;
  ZorDriver* mDriver = nullptr;
  std::atomic<std::uint64_t> mPackets{0};
  IoPolicy mPolicy;  ///< changes of who reads are made under mMutex
  Mutex mMutex;
  Condition mReturned;                             ///< the reader role was given up
  std::exception_ptr mFailure GUARDED_BY(mMutex);  ///< what the driver threw on the other thread
};

}  // namespace zor::host
