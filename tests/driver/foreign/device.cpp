#include "device.h"

#include <chrono>
#include <utility>

zor::ZorDevBase::~ZorDevBase() = default;  // here, so that no object has its type

namespace zor::test {
namespace {

class Base final : public ZorDevBase {
 public:
  Base(std::string params, std::atomic<int>& traces)
      : mParams(std::move(params)), mTraces(traces) {}
  std::string GetParams() override { return mParams; }
  std::shared_ptr<ZorPathTable> GetPathTable() override { return std::make_shared<ZorPathTable>(); }
  void TraceEvent(const std::string&, const std::string&, const TraceAttributes&) override {
    ++mTraces;
  }
  void TraceEvent(const std::string&, const std::string&, const std::string&,
                  const TraceAttributes&) override {
    ++mTraces;
  }

 private:
  const std::string mParams;
  std::atomic<int>& mTraces;
};

}  // namespace

ForeignDevice::ForeignDevice(std::string params)
    : mBase(std::make_shared<Base>(std::move(params), traces)) {}

std::shared_ptr<ZorDevBase> ForeignDevice::GetDevBase() { return mBase; }
std::uint8_t ForeignDevice::GetDevId() { return 9; }

int ForeignDevice::SendPacket(std::unique_ptr<ZorPacket> packet, int /*timeoutMs*/) {
  const std::lock_guard lock(mMutex);
  const auto* bytes = reinterpret_cast<const char*>(packet->mHeader);
  mSent.emplace_back(bytes, packet->GetLength());
  mChanged.notify_all();
  return 0;
}

void ForeignDevice::NotifyReadFailure(const std::string& /*path*/) {}

std::vector<std::string> ForeignDevice::waitForSent(std::size_t count) {
  std::unique_lock lock(mMutex);
  mChanged.wait_for(lock, std::chrono::seconds(10), [&] { return mSent.size() >= count; });
  return mSent;
}

}  // namespace zor::test
