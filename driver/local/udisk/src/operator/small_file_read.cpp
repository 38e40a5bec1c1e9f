// Command 123: pieces of several files in one reply.
#include <string>

#include "morvel_log.h"
#include "protocol/commands.h"
#include "reply.h"
#include "request.h"
#include "udisk_operator.h"
#include "zor_request_source.h"

namespace zor {
namespace {

// A request for more than this is refused whole.
constexpr std::uint64_t kMaxBatchSize = 64U << 20;
// Asking whether the client is still there costs a tenth of reading a small file.
constexpr std::uint32_t kRecordsPerQuery = 32;

struct SmallFileEntry {
  wire::FileReadRecord record;
  PeerString file_name;
};

// 0, or what the handler returns for a request that is refused.
int readEntry(const char* function, wire::Cursor& cursor, SmallFileEntry& entry) {
  const std::size_t remaining = cursor.rest().size();
  if (!cursor.get(entry.record)) {
    MORVEL_ERROR_OF(function, "small_file_read remaining %d, \n", static_cast<int>(remaining));
    return -2;
  }
  const std::uint32_t length = entry.record.pathLength;
  if (length == 0 || length > cursor.rest().size()) return -3;
  entry.file_name = PeerString(cursor.take(length));
  return 0;
}

}  // namespace

int UDiskOperator::small_file_read(const HandlerCall& request) {
  constexpr std::size_t kFixed = wire::wireSize<wire::FileReadRecord>();
  MORVEL_DEBUG(kLogFrequent, "small_file_read entry, \n");
  const wire::Bytes payload = payloadOf(request.packet);
  wire::Cursor cursor(payload);
  wire::SmallFileRecord batch{};
  if (!cursor.get(batch)) {
    MORVEL_ERROR("small_file_read payload_length %d, \n", static_cast<int>(payload.size()));
    return -1;
  }
  MORVEL_DEBUG(kLogFrequent, "small_file_read num_records %d, \n",
               static_cast<int>(batch.num_records));

  // Every record is checked before any file is touched. They are decoded twice
  // rather than kept: a list of them could be larger than the request.
  const std::string mountPoint = this->mountPoint();
  RequestSource* const source = requestSourceOf != nullptr ? requestSourceOf(mDevice) : nullptr;
  const auto mayEnd = [&](std::uint32_t record) {  // the reply would reach nobody
    return mStopServing ||
           (source != nullptr && record % kRecordsPerQuery == 0 && !source->deliversReplies());
  };
  std::uint64_t requested = request.headerLength;  // what the limiter and the log count
  std::uint64_t names = 0;
  wire::Cursor check = cursor;
  SmallFileEntry entry{};
  for (std::uint32_t i = 0; i < batch.num_records; ++i) {
    if (mayEnd(i)) return -1;
    if (const int refusal = readEntry(__func__, check, entry); refusal != 0) return refusal;
    const wire::FileReadRecord& record = entry.record;
    MORVEL_DEBUG(kLogFrequent,
                 "small_file_read file_name %s path %s offset %d buflen %d filename_length %d, \n",
                 entry.file_name.logged().c_str(),
                 LogText(mountPoint, entry.file_name.text).c_str(), static_cast<int>(record.offset),
                 static_cast<int>(record.size), static_cast<int>(record.pathLength));
    names += kFixed + record.pathLength;
    requested += std::uint64_t{kFixed} + record.pathLength + record.size;
  }
  if (requested > kMaxBatchSize) {
    reportMalformed(request.packet);
    return -1;
  }

  ReplyBuilder answer(request, wire::wireSize<wire::SmallFileRecord>() + names);
  answer.add(batch);
  std::uint32_t failures = 0;
  for (std::uint32_t i = 0; i < batch.num_records; ++i) {
    if (mayEnd(i)) return -1;
    readEntry(__func__, cursor, entry);
    wire::FileReadRecord block{entry.record.offset, 0, 0, entry.record.pathLength, 0};
    const std::size_t at = answer.size() - request.headerLength;
    answer.add(block).add(entry.file_name.received);
    // Opened anew from time to time: a long batch must not go on in what was moved away.
    const Location file(openDisk(request), entry.file_name.text);
    const int count =
        mFileManager->UdiskReadFile(file, block.offset, entry.record.size, answer,
                                    failures == 0 ? Failures::kLogged : Failures::kSilent);
    if (count < 0 && failures++ == 0) MORVEL_ERROR("file_read failed res: %d, \n", 0);
    if (count > 0) {
      block.size = static_cast<std::uint32_t>(count);
      answer.rewrite(at, block);
      answer.commit(block.size);
    }
    MORVEL_DEBUG(kLogFrequent, "file_read send back size:%d, buf length: %d, offset: %llu",
                 static_cast<int>(requested), static_cast<int>(block.size),
                 static_cast<unsigned long long>(block.offset));
  }
  if (failures > 1) {
    MORVEL_ERROR("small_file_read: so failed %u of %u records", failures, batch.num_records);
  }
  limitReadRate(__func__, static_cast<std::uint32_t>(requested), PeriodStart::kEmpty);
  reply(request, answer);
  return 0;
}

}  // namespace zor
