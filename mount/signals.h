// Signals as calls on a thread of their own.
#pragma once

#include <functional>
#include <mutex>
#include <thread>

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
  /// SIGUSR1, one call at a time. Calls of what was set before are over when
  /// this returns.
  void handle(std::function<void()> end, std::function<void()> print);

 private:
  void run();

  std::mutex mMutex;  ///< held over the calls
  std::function<void()> mEnd;
  std::function<void()> mPrint;
  bool mStop = false;
  std::thread mThread;
};

}  // namespace zor::client::mount
