#include "client/bandwidth.h"

namespace zor::client {

BandwidthAnnouncer::BandwidthAnnouncer(Link& link, std::uint32_t kbit,
                                       std::chrono::milliseconds period)
    : mLink(link), mKbit(kbit), mThread([this, period] { run(period); }) {}

BandwidthAnnouncer::~BandwidthAnnouncer() {
  {
    const MutexLock lock(mMutex);
    mStop = true;
  }
  mStopped.notifyAll();
  mThread.join();
}

void BandwidthAnnouncer::run(std::chrono::milliseconds period) {
  const MutexLock lock(mMutex);
  while (!mStop) {
    mLink.notify({wire::Command::kBandwidth, Buffer(wire::encoded(mKbit)), {}});
    const auto next = std::chrono::steady_clock::now() + period;
    while (!mStop && mStopped.waitUntil(mMutex, next)) {
    }
  }
}

}  // namespace zor::client
