// The intake of events, and the data-event thread that serves them.
#include <chrono>
#include <new>
#include <optional>
#include <utility>

#include "morvel_log.h"
#include "operator/udisk_operator.h"
#include "udisk_driver.h"
#include "zor_wait_listener.h"

namespace zor {
int UDiskDriver::onEvent(std::unique_ptr<ZorPacket> packet, int /*flags*/) {
  MORVEL_DEBUG(kLogFrequent, "udisk client OnEvent\n");
  if (!packet) return 0;
  if (const int own = mDevice->GetDevId(), other = packet->GetDevId(); own != other) {
    MORVEL_ERROR("this packet is other device myDevId: %d, DevId: %d\n", own, other);
    return -1;
  }
  // A link of GLib's own would end the process when there is no memory for it.
  std::unique_ptr<GList> link(new (std::nothrow) GList{});
  if (!link) {
    MORVEL_ERROR("no memory to queue the request, cmd: %d", packet->GetCmd());
    return -1;
  }
  {
    const MutexLock lock(mMutex);
    if (mQueue == nullptr || mStop) return 0;
    link->data = packet.release();
    g_queue_push_tail_link(mQueue, link.release());
    mQueued.fetch_add(1, std::memory_order_relaxed);
  }
  mCond.notifyOne();  // not under the lock, which the woken thread needs
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

bool UDiskDriver::takeQueue(GQueue& taken) {
  const MutexLock lock(mMutex);
  // A stop that came before this wait has already notified.
  if (!mStop && g_queue_is_empty(mQueue)) {
    mCond.waitFor(mMutex, std::chrono::seconds(1));
  }
  taken = std::exchange(*mQueue, GQueue G_QUEUE_INIT);
  mQueued.store(0, std::memory_order_relaxed);
  return !mStop;
}

// Returns when there is a request, or when it is time to block until the intake is called.
void UDiskDriver::awaitRequests() noexcept {
  const auto queued = [this] { return mQueued.load(std::memory_order_relaxed) != 0; };
  const auto ready = [&] {
    if (!queued() && mRequests != nullptr) mRequests->poll();
    return queued() || mStop;
  };
  // A request that the first poll finds cost no wake-up, and predicts nothing.
  if (mRequests != nullptr && ready()) return;
  if (mSpin.spinUntil(ready) || mRequests == nullptr) return;
  while (mRequests->await() && !queued() && !mStop) {
  }
}

void UDiskDriver::DataEventHandle() {
  if (listenForWaits != nullptr) listenForWaits(&mOperator->Waits());
  bool served = false;
  GQueue taken = G_QUEUE_INIT;
  const auto next = [&taken] {
    const std::unique_ptr<GList> link(g_queue_pop_head_link(&taken));
    return std::unique_ptr<ZorPacket>(link ? static_cast<ZorPacket*>(link->data) : nullptr);
  };
  for (bool going = true; going;) {
    if (served) awaitRequests();
    going = takeQueue(taken);
    served = !g_queue_is_empty(&taken);
    std::optional<UDiskOperator::RequestBatch> batch;
    if (taken.length > 1) batch.emplace(*mOperator);
    while (std::unique_ptr<ZorPacket> packet = next()) {
      if (!going || mStop) continue;
      MORVEL_DEBUG(kLogFrequent, "udisk client DataEventHandle\n");
      mOperator->EventHandle(std::move(packet));
    }
  }
}

}  // namespace zor
