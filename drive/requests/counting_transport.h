// All requests of a drive pass through here, so that its end can wait for their replies.
#pragma once

#include <functional>
#include <utility>

#include "client/transport.h"
#include "drive/requests/pending_replies.h"

namespace zor::client {

class CountingTransport final : public Transport {
 public:
  /// `next` must outlive this object.
  explicit CountingTransport(Transport& next) : mNext(next) {}

  void submit(OutgoingRequest request, Completion done) override {
    mNext.submit(std::move(request), counted(std::move(done)));
  }
  void submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) override {
    mNext.submitFenced(std::move(request), counted(std::move(done)), std::move(fence));
  }
  void post(std::function<void()> task) override {
    mNext.post([done = counted([task = std::move(task)](const Result<ReplyPayload>&) { task(); })] {
      done(ReplyPayload());
    });
  }

  /// Waits until every completion has run. Must not be called from one.
  void drain() {
    const MutexLock lock(mMutex);
    mPending.wait(mMutex);
  }

 private:
  Completion counted(Completion done) {
    const MutexLock lock(mMutex);
    mPending.add();
    return [this, done = std::move(done)](Result<ReplyPayload> reply) {
      done(std::move(reply));
      const MutexLock guard(mMutex);
      mPending.arrived();
    };
  }

  Transport& mNext;
  Mutex mMutex;
  PendingReplies mPending GUARDED_BY(mMutex);
};

}  // namespace zor::client
