#include "mount/end_limit.h"

#include <chrono>

#include "mount/messages.h"

namespace zor::client::mount {
namespace {

// Systems kill what has not ended some seconds after SIGTERM.
constexpr std::chrono::seconds kPatience{3};

}  // namespace

EndLimit::~EndLimit() {
  {
    const std::lock_guard lock(mMutex);
    mOver = true;
    mChanged.notify_one();
  }
  if (mThread.joinable()) mThread.join();
}

void EndLimit::start() {
  if (mThread.joinable()) return;
  mThread = std::thread([this] {
    std::unique_lock lock(mMutex);
    if (mChanged.wait_for(lock, kPatience, [this] { return mOver; })) return;
    report("the host has not answered in time; what waits for it is given up");
    mLink.giveUp();
  });
}

}  // namespace zor::client::mount
