// Leader/follower hand-off of the reader role: a driver polls for requests instead of being woken.
#pragma once

namespace zor {

class ZorDevice;

/// What a framework may offer beside a device: the reader role (leader/follower). A driver's
/// data-event thread that has served its queue takes the role and polls for more requests
/// by itself. That saves a second thread that reads for it, and the wake-up by that thread.
/// The role is optional: requests arrive at the driver's intake without it, too.
///
/// Both operations belong to the data-event thread and pass what has arrived to the
/// driver's intake, on the calling thread.
class RequestSource {
 public:
  /// Does not block.
  virtual void poll() noexcept = 0;

  /// Blocks for a moment if need be. False when the reader role was handed back: the caller
  /// no longer polls, but waits for its intake to be called.
  virtual bool await() noexcept = 0;

  /// False once no reply can reach the client any more: what only makes one may be given up.
  virtual bool deliversReplies() noexcept { return true; }

 protected:
  ~RequestSource() = default;
};

/// The source that is offered for `device`, or null. Any thread. Optional in a
/// framework library.
[[gnu::weak]] RequestSource* requestSourceOf(const ZorDevice* device) noexcept;

/// Offers `source` for `device` as long as it lives, which must be longer than
/// every driver of the device. One for each device.
class RequestSourceOffer {
 public:
  RequestSourceOffer(const ZorDevice& device, RequestSource& source);
  ~RequestSourceOffer();
  RequestSourceOffer(const RequestSourceOffer&) = delete;
  RequestSourceOffer& operator=(const RequestSourceOffer&) = delete;

 private:
  const ZorDevice* mDevice;
};

}  // namespace zor
