// Asking for requests instead of being woken for them.
#pragma once

namespace zor {

class ZorDevice;

/// What a framework may offer beside a device. A driver's data-event
/// thread that has served all it knows of can then look by itself whether more has
/// arrived, which saves a thread that does so for it, and being woken by that.
/// Nothing depends on it: requests that nobody asks for arrive all the same.
///
/// Both operations belong to the data-event thread and hand what has arrived to the
/// driver's intake, on the calling thread.
class RequestSource {
 public:
  /// Does not wait.
  virtual void poll() noexcept = 0;

  /// Waits for a moment if need be. False when the caller should no longer ask,
  /// but wait for its intake to be called.
  virtual bool await() noexcept = 0;

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
