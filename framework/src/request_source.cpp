#include <map>

#include "support/mutex.h"
#include "zor_request_source.h"

namespace zor {
namespace {

Mutex gMutex;
std::map<const ZorDevice*, RequestSource*> gSources GUARDED_BY(gMutex);

}  // namespace

RequestSource* requestSourceOf(const ZorDevice* device) noexcept {
  const MutexLock lock(gMutex);
  const auto found = gSources.find(device);
  return found == gSources.end() ? nullptr : found->second;
}

RequestSourceOffer::RequestSourceOffer(const ZorDevice& device, RequestSource& source)
    : mDevice(&device) {
  const MutexLock lock(gMutex);
  gSources[mDevice] = &source;
}

RequestSourceOffer::~RequestSourceOffer() {
  const MutexLock lock(gMutex);
  gSources.erase(mDevice);
}

}  // namespace zor
