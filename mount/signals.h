// Signals as calls on a thread of their own.
#pragma once

#include <functional>
#include <thread>

#include "support/mutex.h"

namespace zor::client::mount {

/// Blocks the signals that `Signals` takes, in this thread and in those that it
/// starts later.
void blockSignals();

/// REQUIRES: `blockSignals` was called before there were threads. Until `end` is
/// set, SIGINT, SIGTERM and SIGHUP end the process at once.
class Signals {
 public:
  Signals();
  ~Signals();

  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// From now on `end` runs on SIGINT, SIGTERM and SIGHUP, and `print` on
  /// SIGUSR1, one call at a time. No call of an earlier function is under way when
  /// this returns.
  void handle(std::function<void()> end, std::function<void()> print);

 private:
  void run();

  Mutex mMutex;  ///< held over the calls
  std::function<void()> mEnd GUARDED_BY(mMutex);
  std::function<void()> mPrint GUARDED_BY(mMutex);
  bool mStop GUARDED_BY(mMutex) = false;
  std::thread mThread;
};

}  // namespace zor::client::mount
