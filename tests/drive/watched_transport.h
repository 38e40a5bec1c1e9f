// A transport that keeps a record of the requests, and holds or fails chosen ones.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "client/transport.h"

namespace zor::client::test {

class WatchedTransport final : public Transport {
 public:
  explicit WatchedTransport(Transport& next) : mNext(next) {}

  void submit(OutgoingRequest request, Completion done) override {
    const wire::Command command = request.command;
    std::unique_lock lock(mMutex);
    const auto bytes = request.payload.bytes();
    mSeen.emplace_back(command,
                       std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    mChanged.notify_all();
    if (mFailing == command) {
      lock.unlock();
      mNext.post([done = std::move(done)] { done(Error{ErrorKind::kFailed, "as told"}); });
    } else if (mHolding == command) {
      mHeld.emplace_back(std::move(request), std::move(done));
    } else {
      lock.unlock();
      mNext.submit(std::move(request), std::move(done));
    }
  }
  void submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) override {
    const std::lock_guard lock(mMutex);
    mSeen.emplace_back(request.command, "");
    mNext.submitFenced(std::move(request), std::move(done), std::move(fence));
  }
  void post(std::function<void()> task) override { mNext.post(std::move(task)); }

  /// Requests of this kind wait, or fail, until another kind is named.
  void hold(wire::Command command) {
    const std::lock_guard lock(mMutex);
    mHolding = command;
  }
  void fail(wire::Command command) {
    const std::lock_guard lock(mMutex);
    mFailing = command;
  }
  /// Waits until a request of the kind has been made.
  void await(wire::Command command) {
    std::unique_lock lock(mMutex);
    mChanged.wait(lock, [&] { return countLocked(command, "") > 0; });
  }
  void goOn() {
    std::deque<std::pair<OutgoingRequest, Completion>> held;
    {
      const std::lock_guard lock(mMutex);
      mHolding = wire::Command{};
      held.swap(mHeld);
    }
    for (auto& [request, done] : held) mNext.submit(std::move(request), std::move(done));
  }
  void forget() {
    const std::lock_guard lock(mMutex);
    mSeen.clear();
  }
  /// How many requests of the kind, whose strings contain `text`, were made.
  std::ptrdiff_t count(wire::Command command, const std::string& text = "") {
    const std::lock_guard lock(mMutex);
    return countLocked(command, text);
  }
  /// How many requests of any kind contain `text`.
  std::ptrdiff_t countNaming(const std::string& text) {
    const std::lock_guard lock(mMutex);
    return std::count_if(mSeen.begin(), mSeen.end(), [&](const auto& seen) {
      return seen.second.find(text) != std::string::npos;
    });
  }

 private:
  std::ptrdiff_t countLocked(wire::Command command, const std::string& text) const {
    return std::count_if(mSeen.begin(), mSeen.end(), [&](const auto& seen) {
      return seen.first == command && seen.second.find(text) != std::string::npos;
    });
  }

  Transport& mNext;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<std::pair<wire::Command, std::string>> mSeen;
  std::deque<std::pair<OutgoingRequest, Completion>> mHeld;
  wire::Command mHolding{};
  wire::Command mFailing{};
};

}  // namespace zor::client::test
