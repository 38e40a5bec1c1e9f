#include "disk_announcer.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "morvel_log.h"
#include "operator/udisk_operator.h"
#include "protocol/commands.h"
#include "protocol/records.h"

namespace zor {
namespace {

constexpr std::size_t kUsualCapacity = 128;

}  // namespace

int DiskAnnouncer::MountRemote(char* name, ZorDevice* device) {
  if (device != mDevice) {
    MORVEL_DEBUG(kLogDebug, "udisk already plugout, mDevice: %p, device: %p",
                 static_cast<void*>(mDevice), static_cast<void*>(device));
    return -1;
  }
  char announced[256] = {};
  std::memcpy(announced, name, ::strnlen(name, sizeof announced - 1));
  if (!device->GetDevBase()) {
    MORVEL_ERROR("getDevBase error  usb device. ");
    return -1;
  }
  const std::uint8_t readOnly = mReadOnly;
  MORVEL_DEBUG(kLogDebug, "client udisk mount tmpLabel: %s,readOnly:%d\n", announced, readOnly);

  const wire::MountAnnouncement record{static_cast<std::uint16_t>(std::strlen(announced))};
  const auto fixed = wire::encoded(record);
  const std::uint32_t nameSize = record.nameLength + std::uint32_t{1};
  auto packet = std::make_unique<ZorPacket>(
      std::max(kUsualCapacity, kPacketHeaderSize + fixed.size() + nameSize + sizeof readOnly));
  packet->SetHeader(mDevice->GetDevId(), code(wire::Command::kMountRemote),
                    wire::kAnnouncementRequestId);
  if (packet->AppendPayload(fixed.data(), fixed.size()) != 0 ||
      packet->AppendPayload(announced, nameSize) != 0 ||
      packet->AppendPayload(&readOnly, sizeof readOnly) != 0) {
    return -1;
  }
  const int length = static_cast<int>(packet->GetLength());
  MORVEL_DEBUG(kLogDebug, "packet header size: %d, payload size: %d, packet size: %d\n",
               static_cast<int>(fixed.size()), length - static_cast<int>(kPacketHeaderSize),
               length);
  const int result = mDevice->SendPacket(std::move(packet), -1);
  MORVEL_DEBUG(kLogDebug, "client udisk mount ret: %d\n", result);
  return result;
}

void DiskAnnouncer::SetReadSmallFileTrubo() {
  auto packet = std::make_unique<ZorPacket>(kUsualCapacity);
  packet->SetHeader(mDevice->GetDevId(), code(wire::SmallFileTurboNotice::kCommand),
                    wire::kSmallFileNoticeRequestId);
  mDevice->SendPacket(std::move(packet), -1);
}

int DiskAnnouncer::UpdateReadOnly(unsigned char readOnly) {
  mReadOnly = readOnly;
  mOperator->SetReadOnly(readOnly != 0);
  MORVEL_DEBUG(kLogDebug, "udisk is read only %d", readOnly);
  return 0;
}

}  // namespace zor
