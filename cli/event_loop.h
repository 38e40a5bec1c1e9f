// Bringing completions back to the main thread.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "client/result.h"
#include "support/unique_fd.h"

namespace zor::client::cli {

/// Runs tasks on the thread that calls `runOne`. SIGINT, SIGTERM and SIGHUP are seen by
/// `runOne` once `catchSignals` has been called; a second one ends the process. One loop
/// at a time.
class EventLoop {
 public:
  EventLoop();

  /// From any thread. Tasks that never ran are destroyed with the loop.
  void post(std::function<void()> task);

  /// Waits for a task, at most `timeoutMs` (-1: without end), and runs it. False
  /// when a signal has come; tasks are left alone from then on.
  bool runOne(int timeoutMs = -1);

  /// Runs tasks until `done` holds, for at most `limit`, after a signal too.
  void cleanUp(std::chrono::milliseconds limit, const std::function<bool()>& done);

  /// From now on these signals do not end the process.
  void catchSignals();

  /// The signal that has come, or 0.
  int signal() const;

 private:
  bool runTask();
  bool wait(int timeoutMs);

  UniqueFd mWakeup;
  std::mutex mMutex;
  std::deque<std::function<void()>> mTasks;
};

/// A callback that hands its result to `task` on the loop's thread.
template <class T, class Task>
std::function<void(Result<T>)> onLoop(EventLoop& loop, Task task) {
  return [&loop, task = std::move(task)](Result<T> result) {
    auto shared = std::make_shared<Result<T>>(std::move(result));
    loop.post([task, shared] { task(std::move(*shared)); });
  };
}

}  // namespace zor::client::cli
