#include "client/bandwidth.h"

namespace zor::client {

BandwidthAnnouncer::BandwidthAnnouncer(Link& link, std::uint32_t kbit,
                                       std::chrono::milliseconds period)
    : mLink(link), mKbit(kbit), mThread([this, period] { run(period); }) {}

BandwidthAnnouncer::~BandwidthAnnouncer() {
  {
    const std::lock_guard lock(mMutex);
    mStop = true;
  }
  mWakeup.notify_all();
  mThread.join();
}

void BandwidthAnnouncer::run(std::chrono::milliseconds period) {
  std::unique_lock lock(mMutex);
  while (!mStop) {
    mLink.notify({wire::Command::kBandwidth, Buffer(wire::encoded(mKbit)), {}});
    mWakeup.wait_for(lock, period, [this] { return mStop; });
  }
}

}  // namespace zor::client
