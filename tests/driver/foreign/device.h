// A device of a framework that is compiled without run-time type information.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "zor_device.h"

namespace zor::test {

class ForeignDevice final : public ZorDevice {
 public:
  explicit ForeignDevice(std::string params);
  std::shared_ptr<ZorDevBase> GetDevBase() override;
  std::uint8_t GetDevId() override;
  int SendPacket(std::unique_ptr<ZorPacket> packet, int timeoutMs) override;
  void NotifyReadFailure(const std::string& path) override;

  /// The packets that were sent, once there are `count` of them; all there are after ten seconds.
  std::vector<std::string> waitForSent(std::size_t count);

  std::atomic<int> traces{0};

 private:
  const std::shared_ptr<ZorDevBase> mBase;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<std::string> mSent;
};

}  // namespace zor::test
