// Commands 119 (flush) and 120 (release): the peer closes a file. Both are
// answered by their own copy.
#include <string>

#include "morvel_log.h"
#include "request.h"
#include "udisk_operator.h"

namespace zor {

int UDiskOperator::file_flush(unsigned char /*headerLength*/, ZorPacket* packet) {
  const Request<wire::HandleRecord> request(*packet);
  if (!request) return -1;
  MORVEL_DEBUG(kLogDebug, "file_flush fd: %d, path: %s\n", request.record.fd,
               request.path().logged().c_str());
  return echo(*packet);
}

int UDiskOperator::file_release(unsigned char /*headerLength*/, ZorPacket* packet) {
  const Request<wire::HandleRecord> request(*packet);
  if (!request) return -1;
  DiskRoot& disk = openDisk(*packet);
  MORVEL_DEBUG(kLogDebug, "file_release fd: %d, path: %s, mMountPoint: %s\n", request.record.fd,
               request.path().logged().c_str(), disk.localPath("").c_str());
  mFileManager->UdiskRelease(Location(disk, request.path().text));
  return echo(*packet);
}

}  // namespace zor
