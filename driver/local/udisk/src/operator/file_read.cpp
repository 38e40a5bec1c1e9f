// Command 105: reading a piece of a file.
#include <algorithm>
#include <string>

#include "morvel_log.h"
#include "protocol/commands.h"
#include "reply.h"
#include "request.h"
#include "trace_message.h"
#include "udisk_operator.h"

namespace zor {

int UDiskOperator::file_read(DecodedRequest<wire::FileReadRecord>& request) {
  wire::FileReadRecord& record = request.record;
  const PeerString& path = request.path();
  limitReadRate(__func__, record.size, PeriodStart::kWithThisRead);
  DiskRoot& disk = openDisk(request);

  // The contents are read to where they are sent from.
  ReplyBuilder answer(request, wire::wireSize<wire::FileReadRecord>() + path.received.size());
  answer.add(record).add(path.received);
  const int count = mFileManager->UdiskReadFile(Location(disk, path.text), record.offset,
                                                std::min(record.size, wire::kMaxReadSize), answer);
  if (count < 0) MORVEL_ERROR("file_read failed res: %d, \n", -1);
  if (const std::string context = path.logged().str(); isTraced(context)) {
    if (count >= 0) {
      Trace("UDISK_READ_FILE_SUCCESS", true, UDISK_TRACE_PLACE, "udisk readFile success", {},
            context);
    } else {
      Trace("UDISK_READ_FILE_FAIL", false, UDISK_TRACE_PLACE, "udisk readFile fail", {}, context);
      mDevice->NotifyReadFailure(context);
    }
  }
  record.size = static_cast<std::uint32_t>(std::max(count, 0));
  answer.rewrite(0, record);
  if (record.size > 0) answer.commit(record.size);
  MORVEL_DEBUG(kLogFrequent, "file_read send back size:%d, buf length: %d, offset: %llu",
               static_cast<int>(answer.size()), static_cast<int>(record.size),
               static_cast<unsigned long long>(record.offset));
  return reply(request, answer);
}

}  // namespace zor
