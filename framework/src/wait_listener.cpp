#include "zor_wait_listener.h"

namespace zor {
namespace {

thread_local WaitListener* tListener = nullptr;

}  // namespace

void listenForWaits(WaitListener* listener) noexcept { tListener = listener; }

void notifyAboutToWait() noexcept {
  if (tListener != nullptr) tListener->aboutToWait();
}

}  // namespace zor
