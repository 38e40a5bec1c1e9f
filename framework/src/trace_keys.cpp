#include "trace_keys.h"

#include <string_view>

namespace zor {

constexpr std::array<const char*, 36> kTable = {
    "zorModule", "zorVersion", "eventType",     "event",       "errorCode",    "message",
    "vid",       "pid",        "vmid",          "productName", "redirtype",    "morvelPolicy",
    "type",      "class",      "status",        "localPolicy", "remotePolicy", "autoconnect",
    "turbousb",  "biz",        "step",          "TimeMs",      "startTs",      "success",
    "context",   "desktopId",  "redirTypeList", "deviceType",  "credibility",  "flowLevel",
    "flowName",  "zorContext", "processId",     "vmContextId", "zor.mounted",  "mounted"};

static_assert(std::string_view(kTable[kTraceKeyMessage]) == "message");
static_assert(std::string_view(kTable[kTraceKeyProductName]) == "productName");
static_assert(std::string_view(kTable[kTraceKeyStatus]) == "status");
static_assert(std::string_view(kTable[kTraceKeySuccess]) == "success");

const std::array<const char*, 36> kTraceKeys = kTable;

}  // namespace zor
