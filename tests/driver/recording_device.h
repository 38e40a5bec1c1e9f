// A framework's device that keeps whatever a driver hands it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/mutex.h"
#include "zor_device.h"

namespace zor::test {

class RecordingDevice : public ZorDevice, public ZorDevBase {
 public:
  std::shared_ptr<ZorDevBase> GetDevBase() override {
    return {std::shared_ptr<void>(), hasBase ? this : nullptr};
  }
  std::uint8_t GetDevId() override { return id; }
  int SendPacket(std::unique_ptr<ZorPacket> packet, int timeoutMs) override {
    const MutexLock lock(mMutex);
    EXPECT_EQ(timeoutMs, -1);
    capacity = packet->mBuffer->capacity;
    EXPECT_LE(packet->GetLength(), capacity);
    mSent.emplace_back(reinterpret_cast<const char*>(packet->mHeader), packet->GetLength());
    mChanged.notifyAll();
    return 0;
  }
  void NotifyReadFailure(const std::string& path) override { readFailures.push_back(path); }

  std::string GetParams() override { return params; }
  std::shared_ptr<ZorPathTable> GetPathTable() override { return pathTable; }
  void TraceEvent(const std::string& traceId, const std::string& eventName,
                  const TraceAttributes& attributes) override {
    TraceEvent(traceId, "-", eventName, attributes);
  }
  void TraceEvent(const std::string& traceId, const std::string& context,
                  const std::string& eventName, const TraceAttributes& attributes) override {
    if (brokenTraces) throw std::runtime_error("broken");
    const MutexLock lock(mMutex);
    EXPECT_EQ(traceId.size(), 16U);
    EXPECT_EQ(attributes.size(), 4U);
    EXPECT_EQ(attributes.at("success") == "true", attributes.at("status") == "success");
    const std::string& message = attributes.at("message");
    EXPECT_EQ(message.find('['), 0U);
    mTraces.push_back(eventName + " " + attributes.at("status") + " " + context + " " +
                      message.substr(message.find(")] ") + 3));
  }

  std::vector<std::string> sent() {
    const MutexLock lock(mMutex);
    return mSent;
  }
  /// "NAME success|error CONTEXT TEXT" per event; the context is "-" where there was no place for
  /// one, and the text is without its source location.
  std::vector<std::string> traces() {
    const MutexLock lock(mMutex);
    return mTraces;
  }
  void forgetSent() {
    const MutexLock lock(mMutex);
    mSent.clear();
  }
  /// False when there are fewer packets after ten seconds.
  bool waitForSent(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    const MutexLock lock(mMutex);
    while (mSent.size() < count && mChanged.waitUntil(mMutex, deadline)) {
    }
    return mSent.size() >= count;
  }

  std::uint8_t id = 9;
  bool hasBase = true, brokenTraces = false;
  std::string params;
  std::shared_ptr<ZorPathTable> pathTable = std::make_shared<ZorPathTable>();
  std::vector<std::string> readFailures;
  std::uint64_t capacity = 0;  ///< of the latest packet

 private:
  Mutex mMutex;
  Condition mChanged;
  std::vector<std::string> mSent GUARDED_BY(mMutex), mTraces GUARDED_BY(mMutex);
};

}  // namespace zor::test
