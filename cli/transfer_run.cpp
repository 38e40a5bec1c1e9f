#include "cli/transfer_run.h"

namespace zor::client::cli {

void TransferRun::fail(std::string_view what, std::string_view path, const Error& error) {
  ++mFailures;
  if (!isFatal(error)) {
    report(mContext, what, path, error);
  } else if (!mLost) {
    mLost = error;
    mContext.console.message("stopped: " + error.message);
  }
}

bool TransferRun::run() {
  for (;;) {
    while (!mLost && mContext.loop.signal() == 0 && makeRequest()) {
    }
    if (mWindow.empty() || !mContext.loop.runOne()) break;
  }
  const bool interrupted = mContext.loop.signal() != 0;
  if (interrupted) mContext.console.message("interrupted");
  conclude();
  return mFailures == 0 && !interrupted && mProgress.missing() == 0;
}

}  // namespace zor::client::cli
