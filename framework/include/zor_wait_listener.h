// Releasing resources before a thread blocks on its peer.
#pragma once

namespace zor {

class WaitListener {
 public:
  virtual void aboutToWait() noexcept = 0;

 protected:
  ~WaitListener() = default;
};

/// Calls `listener`, unless it is null, whenever the calling thread is about to block in the
/// framework from now on, for example on a client that does not read. It must outlive the
/// thread, or be replaced before. Optional in a framework library: without it every call
/// may block.
[[gnu::weak]] void listenForWaits(WaitListener* listener) noexcept;

/// For the framework and its devices: calls the calling thread's listener, if there is one.
void notifyAboutToWait() noexcept;

}  // namespace zor
