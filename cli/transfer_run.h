// What commands with many requests in flight have in common.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cli/command.h"
#include "cli/progress.h"
#include "cli/window.h"

namespace zor::client::cli {

/// Makes requests as long as they fit, runs what their answers start, and goes
/// on after a failure; only a lost link or a signal ends it early.
class TransferRun {
 public:
  virtual ~TransferRun() = default;

  TransferRun(const TransferRun&) = delete;
  TransferRun& operator=(const TransferRun&) = delete;

  /// Reports a failure; "cannot WHAT 'PATH': ...".
  void fail(std::string_view what, std::string_view path, const Error& error);

  bool failed() const noexcept { return mFailures > 0; }

  /// Works until all is done and reported; false when something failed.
  bool run();

 protected:
  /// `done` names what happens to files: "fetched".
  TransferRun(CommandContext& context, std::string_view done)
      : mContext(context), mProgress(context.console), mDone(done) {}

  /// Makes the next request if it fits; false when there is none or it does not.
  virtual bool makeRequest() = 0;

  /// Reports at the end what was done.
  virtual void conclude() { mProgress.summary(mDone, mFailures); }

  /// A callback that frees the request's place and goes on with `task` on the
  /// main thread. `cost` bytes are in flight until then.
  template <class T, class Task>
  Callback<T> entered(std::uint64_t cost, Task task) {
    mWindow.enter(cost);
    return onLoop<T>(mContext.loop, [this, cost, task = std::move(task)](Result<T> result) {
      mWindow.leave(cost);
      task(std::move(result));
    });
  }

  CommandContext& mContext;
  Progress mProgress;
  Window mWindow;
  std::uint64_t mFailures = 0;

 private:
  const std::string_view mDone;
  std::optional<Error> mLost;
};

}  // namespace zor::client::cli
