// Commands 114 and 115 (directories), 116 (link), 117 (unlink), 118 (rename).
#include <cerrno>
#include <cstring>
#include <string>

#include "morvel_log.h"
#include "reply.h"
#include "request.h"
#include "trace_message.h"
#include "udisk_operator.h"

namespace zor {
int UDiskOperator::make_dir(DecodedRequest<wire::MakeDirRecord>& request) {
  DiskRoot& disk = openDisk(request);
  MORVEL_DEBUG(kLogDebug, "make dir full path: %s,path len:%d, mode: %d\n",
               disk.localPath(request.path().text).c_str(), request.record.pathLength,
               request.record.mode);
  request.record.result =
      mFileManager->UdiskMakeDir(Location(disk, request.path().text), request.record.mode, 1);
  MORVEL_DEBUG(kLogDebug, "make dir resule: %d", request.record.result);
  if (request.record.result != 0) {
    Trace("DEVICE_REDIR_ERROR", false, UDISK_TRACE_PLACE, "udisk make_dir fail");
  }
  return finish(request, recordReply(request), "make dir");
}

int UDiskOperator::remove_dir(DecodedRequest<wire::RemoveRecord>& request) {
  DiskRoot& disk = openDisk(request);
  MORVEL_DEBUG(kLogDebug, "remove dir full path: %s,name\n",
               disk.localPath(request.path().text).c_str());
  request.record.result = static_cast<std::int16_t>(
      mFileManager->UdiskDeleteDirectory(Location(disk, request.path().text)));
  if (request.record.result != 0) {
    Trace("DEVICE_REDIR_ERROR", false, UDISK_TRACE_PLACE, "udisk remove_dir fail");
  }
  MORVEL_DEBUG(kLogDebug, "remove dir resule: %d", request.record.result);
  return finish(request, recordReply(request), "remove dir");
}

int UDiskOperator::set_link(DecodedRequest<wire::TwoPathRecord>& request) {
  DiskRoot& disk = openDisk(request);
  const auto& [from, to] = request.strings;
  MORVEL_DEBUG(kLogDebug, "set link full from path: %s, to path: %s\n",
               disk.localPath(from.text).c_str(), disk.localPath(to.text).c_str());
  request.record.result =
      mFileManager->UdiskLink(Location(disk, from.text), Location(disk, to.text));
  MORVEL_DEBUG(kLogDebug, "set link resule: %d", request.record.result);
  return finish(request, recordReply(request), "set link");
}

int UDiskOperator::set_unlink(DecodedRequest<wire::RemoveRecord>& request) {
  DiskRoot& disk = openDisk(request);
  MORVEL_DEBUG(kLogDebug, "set unlink full from path: %s\n",
               disk.localPath(request.path().text).c_str());
  request.record.result =
      static_cast<std::int16_t>(mFileManager->UdiskUnlink(Location(disk, request.path().text)));
  if (request.record.result < 0) MORVEL_ERROR("set unlink error: %s", std::strerror(errno));
  MORVEL_DEBUG(kLogDebug, "set unlink resule: %d", request.record.result);
  return finish(request, recordReply(request), "set unlink");
}

int UDiskOperator::set_rename(DecodedRequest<wire::TwoPathRecord>& request) {
  DiskRoot& disk = openDisk(request);
  const auto& [from, to] = request.strings;
  MORVEL_DEBUG(kLogDebug, "set rename full from path: %s, to path: %s\n",
               disk.localPath(from.text).c_str(), disk.localPath(to.text).c_str());
  request.record.result =
      mFileManager->UdiskRename(Location(disk, from.text), Location(disk, to.text));
  if (request.record.result != 0) {
    Trace("DEVICE_REDIR_ERROR", false, UDISK_TRACE_PLACE, "udisk set_rename fail");
  }
  MORVEL_DEBUG(kLogDebug, "set rename resule: %d", request.record.result);
  return finish(request, recordReply(request), "set rename");
}

}  // namespace zor
