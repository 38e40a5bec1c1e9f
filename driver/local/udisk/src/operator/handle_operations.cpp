// Commands 119 (flush) and 120 (release): the peer closes a file. Both are
// answered by their own copy.
#include <string>

#include "morvel_log.h"
#include "request.h"
#include "udisk_operator.h"

namespace zor {

int UDiskOperator::file_flush(DecodedRequest<wire::HandleRecord>& request) {
  MORVEL_DEBUG(kLogDebug, "file_flush fd: %d, path: %s\n", request.record.fd,
               request.path().logged().c_str());
  return echo(request.packet);
}

int UDiskOperator::file_release(DecodedRequest<wire::HandleRecord>& request) {
  DiskRoot& disk = openDisk(request);
  MORVEL_DEBUG(kLogDebug, "file_release fd: %d, path: %s, mMountPoint: %s\n", request.record.fd,
               request.path().logged().c_str(), disk.localPath("").c_str());
  mFileManager->UdiskRelease(Location(disk, request.path().text));
  return echo(request.packet);
}

}  // namespace zor
