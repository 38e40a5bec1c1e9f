// Ending in time, whatever the host does.
#pragma once

#include <thread>

#include "client/durable_link.h"
#include "support/mutex.h"

namespace zor::client::mount {

/// Gives a link up some seconds after ending has begun, so that nothing waits for the host
/// any more. Data that could not be written by then is lost and reported as such.
class EndLimit {
 public:
  explicit EndLimit(DurableLink& link) : mLink(link) {}

  /// Stops the time.
  ~EndLimit();

  EndLimit(const EndLimit&) = delete;
  EndLimit& operator=(const EndLimit&) = delete;

  /// Starts the time; only the first call counts. From one thread at a time.
  void start();

 private:
  DurableLink& mLink;
  Mutex mMutex;
  Condition mStopped;
  bool mStop GUARDED_BY(mMutex) = false;
  std::thread mThread;
};

}  // namespace zor::client::mount
