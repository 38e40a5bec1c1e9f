// From the framework's threads to the data-event thread.
#include <chrono>

#include "morvel_log.h"
#include "operator/udisk_operator.h"
#include "udisk_driver.h"

namespace zor {
namespace {

constexpr auto kLookOut = std::chrono::microseconds(40);

}  // namespace

int UDiskDriver::onEvent(std::unique_ptr<ZorPacket> packet, int /*flags*/) {
  MORVEL_DEBUG(kLogFrequent, "udisk client OnEvent\n");
  if (!packet) return 0;
  if (const int own = mDevice->GetDevId(), other = packet->GetDevId(); own != other) {
    MORVEL_ERROR("this packet is other device myDevId: %d, DevId: %d\n", own, other);
    return -1;
  }
  const std::lock_guard lock(mMutex);
  if (mQueue != nullptr && !mStop) {
    g_queue_push_tail(mQueue, packet.release());
    mQueued.fetch_add(1, std::memory_order_relaxed);
    mCond.notify_one();
  }
  return 0;
}

int UDiskDriver::onBusEvent(std::shared_ptr<ZorPacket> packet) {
  if (!packet) return 0;
  MORVEL_DEBUG(kLogFrequent, "client-busevent getPacket devId=%u,reqID=%u \n",
               unsigned{packet->GetDevId()}, packet->GetRequestId());
  if (mOperator) mOperator->BusEventHandle(packet);
  return 0;
}

int UDiskDriver::OnEvent(signed char devId, int, unsigned char* /*data*/, int /*length*/) {
  if (static_cast<std::uint8_t>(devId) == mDevice->GetDevId()) return 0;
  MORVEL_ERROR("this msg is invalid\n");
  return -1;
}

// A remote that waits for each answer sends its next request right behind it:
// going to sleep and being woken would take longer than a short look-out.
void UDiskDriver::lookOut() const noexcept {
  const auto end = std::chrono::steady_clock::now() + kLookOut;
  while (mQueued.load(std::memory_order_relaxed) == 0 && !mStop &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
  }
}

void UDiskDriver::DataEventHandle() {
  bool served = false;
  while (true) {
    std::unique_ptr<ZorPacket> packet;
    if (served) lookOut();
    {
      std::unique_lock lock(mMutex);
      // A stop that came before this wait has already notified.
      if (!mStop && g_queue_is_empty(mQueue)) {
        mCond.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(1));
      }
      if (mStop) {
        while (!g_queue_is_empty(mQueue)) {
          packet.reset(static_cast<ZorPacket*>(g_queue_pop_head(mQueue)));
        }
        return;
      }
      if (!g_queue_is_empty(mQueue)) {
        MORVEL_DEBUG(kLogFrequent, "udisk client DataEventHandle\n");
        packet.reset(static_cast<ZorPacket*>(g_queue_pop_head(mQueue)));
        mQueued.fetch_sub(1, std::memory_order_relaxed);
      }
    }
    served = packet != nullptr;
    if (packet) mOperator->EventHandle(std::move(packet));
  }
}

}  // namespace zor
