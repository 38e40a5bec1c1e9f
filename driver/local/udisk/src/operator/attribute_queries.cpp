// Commands 102 (attributes), 108 (extended attributes) and 113 (statistics).
#include <string>
#include <string_view>

#include "morvel_log.h"
#include "protocol/disk_records.h"
#include "reply.h"
#include "request.h"
#include "udisk_operator.h"

namespace zor {

int UDiskOperator::get_file_attr(DecodedRequest<wire::FileAttrRecord>& request) {
  const PeerString& path = request.path();
  MORVEL_DEBUG(kLogDebug, "get_file_attr path name: %s, size:%d\n", path.logged().c_str(),
               request.record.pathLength);
  if (!path.whole()) {
    MORVEL_ERROR("get_file_attr path not match\n");
    return -1;
  }
  DiskRoot& disk = openDisk(request);
  MORVEL_DEBUG(kLogDebug, "get_attr full path: %s\n", disk.localPath(path.text).c_str());
  udisk_stat attributes{};
  const bool found =
      mFileManager->UdiskGetFileInformation(Location(disk, path.text), &attributes) == 0;
  request.record.attrLength = found ? wire::wireSize<udisk_stat>() : 0;

  ReplyBuilder answer(request, wire::wireSize<wire::FileAttrRecord>() + path.received.size() +
                                   request.record.attrLength);
  answer.add(request.record).add(path.received);
  if (found) answer.add(attributes);
  MORVEL_DEBUG(kLogDebug, "get_attr send back file size: %llu, buf_len:%d\n",
               static_cast<unsigned long long>(attributes.st_size), request.record.attrLength);
  return reply(request, answer);
}

int UDiskOperator::get_xattr(DecodedRequest<wire::XattrRecord>& request) {
  const auto& [path, name] = request.strings;
  MORVEL_DEBUG(kLogFrequent, "get_xattr path:%s, name: %s, size:%llu\n", path.logged().c_str(),
               name.logged().c_str(), static_cast<unsigned long long>(request.record.valueSize));
  if (!name.whole()) {
    MORVEL_ERROR("get_xattr name length not match\n");
    return -1;
  }
  MORVEL_DEBUG(kLogDebug, "get_xattr full path: %s\n", LogText(mountPoint(), path.text).c_str());
  request.record.valueSize = 0;
  request.record.valueLength = 0;

  constexpr std::size_t kFixed = wire::wireSize<wire::XattrRecord>();
  ReplyBuilder answer(request, kFixed + name.received.size());
  answer.add(request.record).add(name.received);
  MORVEL_DEBUG(kLogFrequent, "get_xattr return size: %d\n",
               static_cast<int>(request.headerLength + kFixed + path.received.size() +
                                name.received.size()));
  return reply(request, answer);
}

int UDiskOperator::get_statvfs(DecodedRequest<wire::StatvfsRecord>& request) {
  constexpr std::size_t kStatistics = wire::wireSize<udisk_statvfs>();
  const PeerString& path = request.path();
  const std::size_t slash = path.text.find('/');
  const std::string_view label =
      slash == std::string_view::npos ? std::string_view() : path.text.substr(0, slash);
  MORVEL_DEBUG(kLogDebug, "get_statvfs file_name: %s, full path: %s,name len:%d, label: %s\n",
               path.logged().c_str(), LogText(mountPoint(), path.text).c_str(),
               static_cast<int>(request.record.pathLength), LogText(label).c_str());
  const auto matches = [label](const LabelRecord& record) {
    return std::string_view(record->label, sizeof record->label).starts_with(label);
  };

  request.record.recordLength = kStatistics;
  ReplyBuilder answer(request,
                      wire::wireSize<wire::StatvfsRecord>() + path.received.size() + kStatistics);
  answer.add(request.record).addText(path);
  if (mDiskChanged != 0) {
    // Every record describes the same mount point: one query serves them all.
    udisk_statvfs current{};
    mFileManager->UdiskGetStatvfs(openDisk(request), &current);
    const MutexLock lock(mMountMutex);
    for (const LabelRecord& record : mStatvfsList) {
      if (!matches(record)) continue;
      record->statistics = current;
      answer.add(current);
    }
    mDiskChanged = 0;
  } else {
    const MutexLock lock(mMountMutex);
    for (const LabelRecord& record : mStatvfsList) {
      if (!matches(record)) continue;
      answer.add(record->statistics);
      break;
    }
  }
  MORVEL_DEBUG(kLogDebug, "get_statvfs send back size:%d, buf len: %d",
               static_cast<int>(request.headerLength + path.received.size() + 120),
               static_cast<int>(kStatistics));
  return reply(request, answer);
}

}  // namespace zor
