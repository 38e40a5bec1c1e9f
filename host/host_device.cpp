#include "host/host_device.h"

#include <spdlog/spdlog.h>

#include "support/printable.h"

namespace zor::host {

void HostDevBase::TraceEvent(const std::string& traceId, const std::string& eventName,
                             const TraceAttributes& attributes) {
  if (mTrace) mTrace->write(traceId, {}, eventName, attributes);
}

void HostDevBase::TraceEvent(const std::string& traceId, const std::string& context,
                             const std::string& eventName, const TraceAttributes& attributes) {
  if (mTrace) mTrace->write(traceId, context, eventName, attributes);
}

int HostDevice::SendPacket(std::unique_ptr<ZorPacket> packet, int /*timeoutMs*/) {
  return packet ? mStream.send(std::move(packet)) : -1;
}

void HostDevice::NotifyReadFailure(const std::string& path) {
  spdlog::warn("reading {} failed", printable(path));
}

}  // namespace zor::host
