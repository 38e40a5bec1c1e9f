// The device object that the host hands to a driver.
#pragma once

#include <memory>
#include <string>

#include "host/io/client_stream.h"
#include "host/trace_file.h"
#include "zor_dev_base.h"
#include "zor_device.h"
#include "zor_request_source.h"

namespace zor::host {

/// The description of the served directory; the same one for every client.
class HostDevBase final : public ZorDevBase {
 public:
  /// `paths` and `trace` may be empty.
  HostDevBase(std::string params, std::shared_ptr<ZorPathTable> paths,
              std::shared_ptr<TraceFile> trace)
      : mParams(std::move(params)), mPaths(std::move(paths)), mTrace(std::move(trace)) {}

  std::string GetParams() override { return mParams; }
  std::shared_ptr<ZorPathTable> GetPathTable() override { return mPaths; }
  void TraceEvent(const std::string& traceId, const std::string& eventName,
                  const TraceAttributes& attributes) override;
  void TraceEvent(const std::string& traceId, const std::string& context,
                  const std::string& eventName, const TraceAttributes& attributes) override;

 private:
  const std::string mParams;
  const std::shared_ptr<ZorPathTable> mPaths;
  const std::shared_ptr<TraceFile> mTrace;
};

/// The device as one client sees it.
class HostDevice final : public ZorDevice {
 public:
  static constexpr std::uint8_t kDeviceId = 1;

  /// `stream` and `requests` must outlive the device.
  HostDevice(ClientStream& stream, RequestSource& requests, std::shared_ptr<HostDevBase> base)
      : mStream(stream), mBase(std::move(base)), mRequests(*this, requests) {}

  std::shared_ptr<ZorDevBase> GetDevBase() override { return mBase; }
  std::uint8_t GetDevId() override { return kDeviceId; }

  /// See ClientStream::send. Waits as long as it takes, whatever `timeoutMs` says: a
  /// packet cannot be given up half-way without losing the stream.
  int SendPacket(std::unique_ptr<ZorPacket> packet, int timeoutMs) override;
  void NotifyReadFailure(const std::string& path) override;

 private:
  ClientStream& mStream;
  const std::shared_ptr<HostDevBase> mBase;
  const RequestSourceOffer mRequests;
};

}  // namespace zor::host
