// Letting go of things before a thread waits for somebody else.
#pragma once

namespace zor {

class WaitListener {
 public:
  virtual void aboutToWait() noexcept = 0;

 protected:
  ~WaitListener() = default;
};

/// From now on `listener`, or nobody when it is null, is told when the calling
/// thread is about to wait in the framework, for example for a remote that does
/// not read. It must outlive the thread, or be taken back before. Optional in a framework
/// library: without it every call may wait.
[[gnu::weak]] void listenForWaits(WaitListener* listener) noexcept;

/// For the framework and its devices: tells the calling thread's listener, if there is one.
void tellAboutToWait() noexcept;

}  // namespace zor
