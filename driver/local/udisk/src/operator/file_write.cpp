// Command 106: writing into an existing file, one block or a batch of chunks.
#include <string>

#include "morvel_log.h"
#include "reply.h"
#include "request.h"
#include "trace_message.h"
#include "udisk_operator.h"

namespace zor {
namespace {

// The bytes of `data` that complete chunks took up, plus a chunk's header when
// the chunk behind it failed. `function` is whose lines it writes.
std::int64_t writeBatch(const char* function, FileWriter& file, wire::Bytes data) {
  constexpr std::size_t kChunkHeader = wire::wireSize<wire::WriteChunk>();
  wire::Cursor cursor(data);
  std::int64_t consumed = 0;
  while (cursor.rest().size() > kChunkHeader) {
    wire::WriteChunk chunk{};
    const std::size_t left = cursor.rest().size();
    cursor.get(chunk);
    if (chunk.length > cursor.rest().size()) {
      MORVEL_ERROR_OF(function, "buffer length error, size: %d, buffer_size:%d",
                      static_cast<int>(chunk.length), static_cast<int>(left));
      return consumed + static_cast<std::int64_t>(kChunkHeader);
    }
    const int written = file.write(cursor.take(chunk.length), chunk.offset);
    if (written < 0 || static_cast<std::uint32_t>(written) != chunk.length) {
      MORVEL_ERROR_OF(function, "file_write failed size: %d, result: %d",
                      static_cast<int>(chunk.length), written);
      return consumed + static_cast<std::int64_t>(kChunkHeader);
    }
    consumed += static_cast<std::int64_t>(kChunkHeader) + chunk.length;
  }
  return consumed;
}

}  // namespace

int UDiskOperator::file_write(DecodedRequest<wire::FileWriteRecord>& request) {
  wire::FileWriteRecord& record = request.record;
  wire::Bytes data;
  if (!request.data(record.file_buf_length, data)) return -1;
  const PeerString& path = request.path();
  DiskRoot& disk = openDisk(request);
  // clang-format off
  MORVEL_DEBUG(kLogFrequent,
               "file_write full path: %s, write_header->fuse_length: %d, offset: %llu,write_header->file_buf_length:%d\n",
               disk.localPath(path.text).c_str(), static_cast<int>(record.fuse_length),
               static_cast<unsigned long long>(record.offset), record.file_buf_length);
  // clang-format on
  std::int64_t result = 0;
  if (record.fuse_length != 0) {
    result = FileWriter(Location(disk, path.text)).write(data, record.offset);
  } else if (data.size() > wire::wireSize<wire::WriteChunk>()) {
    FileWriter file(Location(disk, path.text));
    result = writeBatch(__func__, file, data);
  }

  const std::string context = path.logged().str();
  if (result == record.file_buf_length) {
    if (isTraced(context)) {
      Trace("UDISK_WRITE_FILE_SUCCESS", true, UDISK_TRACE_PLACE, "udisk writeFile success", {},
            context);
    }
  } else {
    record.file_buf_length = 0;
    MORVEL_ERROR("file_write failed, res: %d", static_cast<int>(result));
    if (isTraced(context)) {
      Trace("UDISK_WRITE_FILE_FAIL", false, UDISK_TRACE_PLACE, "udisk writeFile fail", {}, context);
    }
  }
  if (record.replyMark != record.replyMatch) return static_cast<int>(result);

  ReplyBuilder answer(request, wire::wireSize<wire::FileWriteRecord>() + path.received.size());
  answer.add(record).add(path.received);
  MORVEL_DEBUG(kLogFrequent, "file_write send back size:%d, write res: %d",
               static_cast<int>(answer.size()), static_cast<int>(result));
  return reply(request, answer);
}

}  // namespace zor
