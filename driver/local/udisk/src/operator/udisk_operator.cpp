#include "udisk_operator.h"

#include <sys/time.h>

#include <cstdlib>

#include "morvel_log.h"

namespace zor {

std::int64_t getCurrentTime() {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
}

UdiskOperatorInf::~UdiskOperatorInf() = default;

void UDiskOperator::FreeDeleter::operator()(void* memory) const noexcept { std::free(memory); }

UDiskOperator::UDiskOperator(ZorDevice* device)
    : mDevice(device), mFileManager(std::make_unique<FileManagerLinux>()) {}

UDiskOperator::~UDiskOperator() = default;

std::string UDiskOperator::GetDrvName() {
  const MutexLock lock(mMountMutex);
  return mMountDrive;
}

std::uint8_t UDiskOperator::GetDevId() {
  return mDevice != nullptr ? mDevice->GetDevId() : std::uint8_t{0};
}

}  // namespace zor
