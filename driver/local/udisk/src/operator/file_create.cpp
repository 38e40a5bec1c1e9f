// Command 103: creating an empty file. Command 104 is never served, because
// every request names its file by path.
#include <string>

#include "morvel_log.h"
#include "reply.h"
#include "request.h"
#include "trace_message.h"
#include "udisk_operator.h"

namespace zor {

int UDiskOperator::file_create(DecodedRequest<wire::FileCreateRecord>& request) {
  wire::FileCreateRecord& record = request.record;
  const PeerString& path = request.path();
  DiskRoot& disk = openDisk(request);
  MORVEL_DEBUG(kLogDebug, "file_create full path: %s, flag:%x, mode: %x\n",
               disk.localPath(path.text).c_str(), record.flags, record.mode);
  record.fd =
      mFileManager->UdiskCreateFile(Location(disk, path.text), 0, static_cast<int>(record.mode));
  if (record.fd < 0) {
    Trace("DEVICE_REDIR_ERROR", false, UDISK_TRACE_PLACE, "udisk CreatFile fail");
  }
  ReplyBuilder answer(request, wire::wireSize<wire::FileCreateRecord>() + path.received.size());
  answer.add(record).add(path.received);
  MORVEL_DEBUG(kLogDebug, "file_create send size:%d file fd: %d\n", static_cast<int>(answer.size()),
               record.fd);
  return reply(request, answer);
}

int UDiskOperator::file_open(unsigned char /*headerLength*/, ZorPacket* /*request*/) { return 0; }

}  // namespace zor
