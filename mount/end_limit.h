// Ending in time, whatever the host does.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "client/durable_link.h"

namespace zor::client::mount {

/// Gives a link up some seconds after ending has begun, so that nothing waits for the host
/// any more. What could not be written by then is lost, and told like all that is.
class EndLimit {
 public:
  explicit EndLimit(DurableLink& link) : mLink(link) {}

  /// Does nothing any more.
  ~EndLimit();

  EndLimit(const EndLimit&) = delete;
  EndLimit& operator=(const EndLimit&) = delete;

  /// The time begins to run, once. From one thread at a time.
  void start();

 private:
  DurableLink& mLink;
  std::mutex mMutex;
  std::condition_variable mChanged;
  bool mOver = false;
  std::thread mThread;
};

}  // namespace zor::client::mount
