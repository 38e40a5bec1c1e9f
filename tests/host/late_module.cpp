// A module that takes its time before it announces its disk, and then tells
// through which entry each packet came and whether it came too early. Built
// with SILENT it never announces anything; built with STUCK it is not closed while the file
// that STUCK_WHILE names is there.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "protocol/commands.h"
#include "zor_device.h"
#include "zor_driver.h"

namespace {

class LateDriver final : public zor::ZorRawDriver {
 public:
  explicit LateDriver(zor::ZorDevice* device) : mDevice(device) {
#ifndef SILENT
    mThread = std::thread([this] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      mReady = true;
      send(zor::wire::code(zor::wire::Command::kMountRemote), zor::wire::kAnnouncementRequestId,
           'A');
    });
#endif
  }
  int onEvent(std::unique_ptr<zor::ZorPacket> packet, int) override {
    return send(packet->GetCmd(), packet->GetRequestId(), mReady ? 'E' : 'X');
  }
  int onBusEvent(std::shared_ptr<zor::ZorPacket> packet) override {
    return send(packet->GetCmd(), packet->GetRequestId(), 'B');
  }
  int onPolicyChange(const std::string&) override { return 0; }
  // A driver that is destroyed unclosed ends the program.
  int Close(signed char) override {
    if (mThread.joinable()) mThread.join();
#ifdef STUCK
    while (::access(std::getenv("STUCK_WHILE"), F_OK) == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
#endif
    return 0;
  }

 private:
  int send(std::uint16_t cmd, std::uint32_t requestId, char mark) {
    auto packet = std::make_unique<zor::ZorPacket>(17);
    packet->SetHeader(mDevice->GetDevId(), cmd, requestId);
    packet->AppendPayload(&mark, 1);
    return mDevice->SendPacket(std::move(packet), -1);
  }

  zor::ZorDevice* mDevice;
  std::atomic<bool> mReady{false};
  std::thread mThread;
};

zor::ZorDriver* openLate(zor::ZorDevice* device, const std::string&) {
  return new LateDriver(device);
}

}  // namespace

extern "C" {
extern const zor::ZorDriverModule ZOR_DRV_MODULE;
const zor::ZorDriverModule ZOR_DRV_MODULE = {openLate, 0, {2, 0xffff, 0xffff, 0}, "udisk-redir"};
}
