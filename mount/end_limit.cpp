#include "mount/end_limit.h"

#include <chrono>

#include "mount/messages.h"

namespace zor::client::mount {
namespace {

// Systems kill what has not ended some seconds after SIGTERM.
constexpr std::chrono::seconds kEndLimit{3};

}  // namespace

EndLimit::~EndLimit() {
  {
    const MutexLock lock(mMutex);
    mStop = true;
    mStopped.notifyOne();
  }
  if (mThread.joinable()) mThread.join();
}

void EndLimit::start() {
  if (mThread.joinable()) return;
  mThread = std::thread([this] {
    const auto end = std::chrono::steady_clock::now() + kEndLimit;
    {
      const MutexLock lock(mMutex);
      while (!mStop && mStopped.waitUntil(mMutex, end)) {
      }
      if (mStop) return;
    }
    report("the host has not answered in time; pending requests are given up");
    mLink.giveUp();
  });
}

}  // namespace zor::client::mount
