#include <map>
#include <mutex>

#include "zor_request_source.h"

namespace zor {
namespace {

std::mutex gMutex;
std::map<const ZorDevice*, RequestSource*> gSources;  // guarded by gMutex

}  // namespace

RequestSource* requestSourceOf(const ZorDevice* device) noexcept {
  const std::lock_guard lock(gMutex);
  const auto found = gSources.find(device);
  return found == gSources.end() ? nullptr : found->second;
}

RequestSourceOffer::RequestSourceOffer(const ZorDevice& device, RequestSource& source)
    : mDevice(&device) {
  const std::lock_guard lock(gMutex);
  gSources[mDevice] = &source;
}

RequestSourceOffer::~RequestSourceOffer() {
  const std::lock_guard lock(gMutex);
  gSources.erase(mDevice);
}

}  // namespace zor
