// The driver of one redirected disk: takes the framework's events in and owns
// everything that serves them.
#pragma once

#include <glib.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "support/adaptive_spin.h"
#include "support/mutex.h"
#include "zor_device.h"
#include "zor_driver.h"
#include "zor_packet.h"
#include "zor_request_source.h"

namespace zor {

class UDiskOperator;
class UDiskService;

/// Init, Close, the destructor and the policy operations run on the
/// framework's thread; the event callbacks on any of its threads, and on the data-event
/// thread when that asks a device for requests. `Close` must precede the destruction of
/// a driver that `Init` started.
class UDiskDriver : public ZorRawDriver {
 public:
  /// `device` is not owned; of `params` the first 127 characters are kept.
  UDiskDriver(ZorDevice* device, const char* params);
  ~UDiskDriver() override;
  UDiskDriver(const UDiskDriver&) = delete;
  UDiskDriver& operator=(const UDiskDriver&) = delete;

  /// Creates the operator, the data-event thread and the service. 0, or -1 with
  /// everything undone. A data-event thread that the system refuses throws; then
  /// everything is undone, too.
  int Init();
  int Close(signed char reason) override;
  int onPolicyChange(const std::string& policy) override;
  int policy_setting(const char* policy);
  std::shared_ptr<DriverObj> GetDriverObj() override;

  // event_intake.cpp
  int onEvent(std::unique_ptr<ZorPacket> packet, int flags) override;
  int onBusEvent(std::shared_ptr<ZorPacket> packet) override;
  int OnEvent(signed char devId, int, unsigned char* data, int length);
  /// Body of the data-event thread: serves the queue, in order, until the stop.
  void DataEventHandle();

 private:
  friend struct UDiskDriverPeek;  // tests read the state that has no accessor

  bool takeQueue(GQueue& taken);
  void awaitRequests() noexcept;
  void storePolicy(const char* policy) noexcept;
  void stopServing();
  void stopDataThread();
  void freeQueue();

  std::shared_ptr<UDiskOperator> mOperator;
  Mutex mMutex;
  /// Owned ZorPacket* in links of ours.
  GQueue* mQueue GUARDED_BY(mMutex) PT_GUARDED_BY(mMutex) = nullptr;
  std::atomic<std::size_t> mQueued{0};  ///< the queue's length, for checks without the lock
  AdaptiveSpin mSpin{std::chrono::microseconds(100)};  ///< data-event thread only
  Condition mCond;                                     ///< there is a request, or mStop
  std::atomic<bool> mStop{false};
  ZorDevice* mDevice;
  RequestSource* mRequests;  ///< null where the framework offers none
  char mPolicy[128] = {};
  std::unique_ptr<std::thread> mDataThread;
  std::unique_ptr<UDiskService> mService;
};

/// The module's open entry: a running driver, or null.
ZorDriver* udisk_open(ZorDevice* device, const std::string& params) noexcept;

}  // namespace zor
