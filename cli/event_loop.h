// Bringing completions back to the main thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

#include "client/result.h"

namespace zor::client::cli {

/// Runs tasks on the thread that calls `runOne`. SIGINT, SIGTERM and SIGHUP are seen by
/// `runOne` once `catchSignals` has been called; a second one ends the process.
class EventLoop {
 public:
  EventLoop();
  ~EventLoop();

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// From any thread. Tasks that never ran are destroyed with the loop.
  void post(std::function<void()> task);

  /// Waits for a task, at most for `limit`, and runs it. False when a signal has come; tasks
  /// are left alone from then on.
  bool runOne(std::chrono::milliseconds limit = std::chrono::hours(24 * 365));

  /// Runs tasks until `done` holds, for at most `limit`, after a signal too.
  void cleanUp(std::chrono::milliseconds limit, const std::function<bool()>& done);

  /// From now on these signals do not end the process. Once.
  void catchSignals();

  /// The signal that has come, or 0.
  int signal() const;

 private:
  struct State;
  const std::unique_ptr<State> mState;
};

/// A callback that hands its result to `task` on the loop's thread.
template <class T, class Task>
std::function<void(Result<T>)> onLoop(EventLoop& loop, Task task) {
  // Shared, since closures with constant members are copied and not moved: what the task
  // owns must be destroyed on the loop's thread.
  return [&loop, task = std::make_shared<Task>(std::move(task))](Result<T> result) mutable {
    auto shared = std::make_shared<Result<T>>(std::move(result));
    loop.post([task = std::move(task), shared] { (*task)(std::move(*shared)); });
  };
}

}  // namespace zor::client::cli
