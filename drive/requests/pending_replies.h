// Replies that are still to come.
#pragma once

#include "support/mutex.h"

namespace zor::client {

/// Counts outstanding replies and wakes those who wait for the last one. Guarded by the
/// mutex of its owner.
class PendingReplies {
 public:
  void add() noexcept { ++mCount; }
  void arrived() noexcept {
    if (--mCount == 0) mNone.notifyAll();
  }
  bool none() const noexcept { return mCount == 0; }
  void wait(Mutex& mutex) REQUIRES(mutex) {
    while (mCount > 0) mNone.wait(mutex);
  }

 private:
  unsigned mCount = 0;
  Condition mNone;
};

}  // namespace zor::client
