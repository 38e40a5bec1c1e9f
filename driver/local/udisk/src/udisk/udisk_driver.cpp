#include "udisk_driver.h"

#include <cstdio>
#include <exception>
#include <new>
#include <utility>

#include "morvel_log.h"
#include "operator/trace_message.h"
#include "operator/udisk_operator.h"
#include "service/udisk_service.h"

namespace zor {

UDiskDriver::UDiskDriver(ZorDevice* device, const char* params)
    : mDevice(device), mRequests(requestSourceOf != nullptr ? requestSourceOf(device) : nullptr) {
  if (params != nullptr) storePolicy(params);
}

UDiskDriver::~UDiskDriver() = default;

int UDiskDriver::Init() try {
  // A thread that is left running would end the process with its owner.
  struct Undo {
    UDiskDriver* driver;
    ~Undo() {
      if (driver == nullptr) return;
      driver->stopServing();
      driver->mOperator.reset();
    }
  } undo{this};
  MORVEL_DEBUG(kLogDebug, "client udisk init\n");
  mOperator = std::make_shared<UDiskOperator>(mDevice);
  mStop = false;
  {
    const MutexLock lock(mMutex);
    mQueue = new GQueue(G_QUEUE_INIT);
  }
  mDataThread = std::make_unique<std::thread>(&UDiskDriver::DataEventHandle, this);
  MORVEL_DEBUG(kLogDebug, "client udisk init service\n");
  mService = std::make_unique<UDiskService>(mDevice, mOperator.get());
  if (mService->StartLoop() == -1) return -1;
  mOperator->Trace("UDISK_DRIVER_OPEN", true, UDISK_TRACE_PLACE, "udisk driver open success");
  MORVEL_DEBUG(kLogDebug, "client udisk init success\n");
  undo.driver = nullptr;
  return 0;
} catch (const std::bad_alloc&) {
  return -1;
}

int UDiskDriver::Close(signed char /*reason*/) {
  MORVEL_DEBUG(kLogDebug, "udisk client close\n");
  stopServing();
  if (mOperator) {
    mOperator->Trace("UDISK_DRIVER_CLOSE", true, UDISK_TRACE_PLACE, "udisk driver close success");
    mOperator.reset();
  }
  MORVEL_DEBUG(kLogDebug, "udisk client close out\n");
  return 0;
}

void UDiskDriver::stopServing() {
  if (mService) {
    mService->StopLoop();
    mService.reset();
  }
  stopDataThread();
  freeQueue();
}

void UDiskDriver::stopDataThread() {
  if (!mDataThread) return;
  mStop = true;
  mOperator->StopServing();
  {
    const MutexLock lock(mMutex);
    mCond.notifyOne();
  }
  mDataThread->join();
  mDataThread.reset();
}

void UDiskDriver::freeQueue() {
  const MutexLock lock(mMutex);
  delete std::exchange(mQueue, nullptr);  // the data thread has emptied it
}

int UDiskDriver::onPolicyChange(const std::string& policy) {
  storePolicy(policy.c_str());
  return 0;
}

int UDiskDriver::policy_setting(const char* /*policy*/) { return 0; }

void UDiskDriver::storePolicy(const char* policy) noexcept {
  std::snprintf(mPolicy, sizeof mPolicy, "%s", policy);
}

std::shared_ptr<DriverObj> UDiskDriver::GetDriverObj() { return mOperator; }

ZorDriver* udisk_open(ZorDevice* device, const std::string& params) noexcept {
  MORVEL_DEBUG(kLogDebug, "client udisk open\n");
  try {
    auto driver = std::make_unique<UDiskDriver>(device, params.c_str());
    if (driver->Init() != -1) return driver.release();
  } catch (const std::exception&) {  // no memory for the driver, or no thread to be had
  }
  MORVEL_ERROR("udisk_open Init failed");
  return nullptr;
}

}  // namespace zor
