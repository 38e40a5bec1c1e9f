// Asking for requests instead of being woken for them.
#pragma once

namespace zor {

/// What a framework's device may be beside a ZorDevice. A driver's data-event
/// thread that has served all it knows of can then look by itself whether more has
/// arrived, which saves a thread that does so for it, and being woken by that.
/// Nothing depends on it: requests that nobody asks for arrive all the same.
///
/// Both operations belong to the data-event thread and hand what has arrived to the
/// driver's intake, on the calling thread.
class __attribute__((visibility("default"))) RequestSource {
 public:
  /// Does not wait.
  virtual void poll() noexcept = 0;

  /// Waits for a moment if need be. False when the caller should no longer ask,
  /// but wait for its intake to be called.
  virtual bool await() noexcept = 0;

 protected:
  ~RequestSource() = default;
};

}  // namespace zor
