// Reports of notable moments to the device's trace sink.
#include <exception>

#include "morvel_log.h"
#include "trace_keys.h"
#include "trace_message.h"
#include "udisk_operator.h"
#include "zor_tracer.h"

namespace zor {

void UDiskOperator::TraceZorDevice(std::string eventName, ZorDevice* device, bool success,
                                   std::string message, const std::string& context,
                                   const std::string& /*extra*/) {
  if (device == nullptr) return;
  // Whatever stands in the way of an event (no descriptor is left for a trace
  // id, say), the request that it reports goes on.
  try {
    const std::shared_ptr<ZorDevBase> base = device->GetDevBase();
    if (!base) return;
    const std::string name = "LOCAL_" + eventName;
    const TraceAttributes attributes = {
        {kTraceKeys[kTraceKeyStatus], success ? "success" : "error"},
        {kTraceKeys[kTraceKeyMessage], std::move(message)},
        {kTraceKeys[kTraceKeySuccess], success ? "true" : "false"},
        {kTraceKeys[kTraceKeyProductName], GetLocalMountPoint()}};
    const std::string id = ZorTracer::GetInstance()->GenerateTraceId();
    if (context.empty()) {
      base->TraceEvent(id, name, attributes);
    } else {
      base->TraceEvent(id, context, name, attributes);
    }
  } catch (const std::exception& error) {
    MORVEL_ERROR("no trace of %s: %s", eventName.c_str(), error.what());
  }
}

void UDiskOperator::Trace(const char* eventName, bool success, const TracePlace& place,
                          std::string_view text, std::string_view detail,
                          std::string_view context) noexcept try {
  std::string message = "[";
  message.append(place.file).append(" ").append(place.function);
  message.append("(").append(std::to_string(place.line)).append(")] ");
  message.append(text).append(detail);
  TraceZorDevice(eventName, mDevice, success, std::move(message), LogText(context).str(), "");
} catch (const std::exception& error) {
  MORVEL_ERROR("no trace of %s: %s", eventName, error.what());
}

bool UDiskOperator::isTraced(const std::string& path) {
  const std::shared_ptr<ZorDevBase> base = mDevice->GetDevBase();
  const std::shared_ptr<ZorPathTable> table = base ? base->GetPathTable() : nullptr;
  return table && table->Lookup(path) != nullptr;
}

}  // namespace zor
