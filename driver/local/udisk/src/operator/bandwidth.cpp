// The client's bandwidth announcements, and the pacing of reads by them.
#include <unistd.h>

#include <algorithm>

#include "morvel_log.h"
#include "protocol/commands.h"
#include "read_limiter.h"
#include "request.h"
#include "trace_message.h"
#include "udisk_operator.h"

namespace zor {

int UDiskOperator::BusEventHandle(std::shared_ptr<ZorPacket> packet) {
  constexpr std::int64_t kReportIntervalMs = 5001;
  std::uint32_t announced = 0;
  if (!packet || !packet->mBuffer) return 0;
  const int cmd = packet->GetCmd();
  if (payloadOf(*packet).size() < sizeof announced || packet->ReadUint32(&announced) != 0) return 0;
  if (cmd != code(wire::Command::kBandwidth)) return 0;

  mBandwidthTime = getCurrentTime();
  mBandwidthCheckTime = getCurrentTime();
  // A clock that was set back does not keep reports away until it is back again.
  mBandwidthTraceTime = std::min(mBandwidthTraceTime, mBandwidthCheckTime);
  if (mBandwidthCheckTime - mBandwidthTraceTime >= kReportIntervalMs && announced != mBandwidth) {
    Trace("UDISK_READ_BW_INFO", true, UDISK_TRACE_PLACE,
          "Udisk read bwinfo:", std::to_string(announced));
    MORVEL_DEBUG(kLogDebug, "busEventHandle cmd: %d, paylaodSize: %d,requestId:%u bw:%d\n", cmd,
                 static_cast<int>(payloadOf(*packet).size()), packet->GetRequestId(),
                 static_cast<int>(announced));
    mBandwidthTraceTime = mBandwidthCheckTime;
  }
  mBandwidth = announced == 0 ? 0 : std::max(announced, kMinBandwidth);
  return 0;
}

void UDiskOperator::limitReadRate(const char* function, std::uint32_t count, PeriodStart start) {
  const std::int64_t now = getCurrentTime();
  if (start == PeriodStart::kWithThisRead) mReadTime = now;
  // A clock that was set back does not prolong an announcement: it counts from now.
  std::int64_t announced = mBandwidthTime;
  if (now < announced && mBandwidthTime.compare_exchange_strong(announced, now)) announced = now;
  if (now - announced >= kBandwidthLifetimeMs) mBandwidth = 0;
  const std::uint32_t bandwidth = mBandwidth;
  if (bandwidth == 0) return;

  mWindowBytes += count;
  const std::int64_t started = getCurrentTime();
  MORVEL_DEBUG_OF(function, kLogFrequent,
                  "start limit udisk write ... start time =%lu mRelishTime =%d\n",
                  static_cast<unsigned long>(started), static_cast<int>(mRelishTime));
  const RatePeriod period = ratePeriod(bandwidth);
  if (mWindowBytes >= period.budget) {
    const std::int64_t pause = ratePause(period, mWindowBytes, mRelishTime);
    closeDisk();
    if (pause > 0) ::usleep(static_cast<useconds_t>(pause * 1000));
    mWindowBytes = start == PeriodStart::kWithThisRead ? count : 0;
  }
  const std::int64_t ended = getCurrentTime();
  MORVEL_DEBUG_OF(function, kLogFrequent, "end limit udisk write endtime=%lu kbps...\n",
                  static_cast<unsigned long>(ended));
  mRelishTime = rateOverrun(period, ended - started);
}

}  // namespace zor
