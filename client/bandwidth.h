// Announcing the bandwidth to which the host throttles its reads.
#pragma once

#include <chrono>
#include <cstdint>
#include <thread>

#include "client/link.h"
#include "support/mutex.h"

namespace zor::client {

/// Announces the bandwidth at once and then every `period`: hosts forget an
/// announcement that is older than five seconds.
class BandwidthAnnouncer {
 public:
  BandwidthAnnouncer(Link& link, std::uint32_t kbit,
                     std::chrono::milliseconds period = std::chrono::seconds(1));
  ~BandwidthAnnouncer();

  BandwidthAnnouncer(const BandwidthAnnouncer&) = delete;
  BandwidthAnnouncer& operator=(const BandwidthAnnouncer&) = delete;

 private:
  void run(std::chrono::milliseconds period);

  Link& mLink;
  const std::uint32_t mKbit;
  Mutex mMutex;
  Condition mStopped;
  bool mStop GUARDED_BY(mMutex) = false;
  std::thread mThread;
};

}  // namespace zor::client
