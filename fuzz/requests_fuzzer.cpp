// Sequences of requests to the operator, on a real disk: most of them well
// formed, with paths that are made of the disk's names.
#include "client/exchange.h"
#include "fuzzed_disk.h"

namespace zor::fuzz {
namespace {

using namespace zor::wire;

constexpr std::string_view kNames[] = {
    "inside.txt", "sub",        "deep",     "..",      ".",   "",      "empty", "spare",
    "in",         "back",       "in-file",  "rel",     "up",  "fresh", "out",   "link-inside.txt",
    "link-fresh", "link-empty", "in-empty", "outside", "new", "a\\b",  "pipe",  "disk-sibling",
    "disk",       "media",      "tmp",      "new.doc"};

/// Mostly a path of known names; with 255 as the first byte raw bytes.
std::string path(Input& input) {
  const unsigned count = input.byte();
  if (count == 255) return std::string(input.take(input.word()));
  std::string text;
  for (auto i = count % 8; i > 0; --i) (text += '/') += kNames[input.byte() % std::size(kNames)];
  return count >= 128 || text.empty() ? text + '/' : text;
}

template <class R>
std::string request(Input& input, const std::string& lastReply) {
  std::string fixed(input.take(wireSize<R>()));
  fixed.resize(wireSize<R>());
  R record{};
  Cursor(std::as_bytes(std::span(fixed))).get(record);
  client::exchange::Strings strings(std::tuple_size_v<decltype(R::kStrings)>);
  for (std::string& string : strings) string = path(input);
  std::string data;
  if constexpr (requires { record.file_buf_length; }) {
    data = input.take(input.byte());
    if (input.byte() < 200) record.file_buf_length = static_cast<std::int32_t>(data.size());
  }
  if constexpr (requires { record.listingLength; }) {
    // The listing that a remote has got before is the usual one to ask about.
    data = input.byte() < 200 ? lastReply : input.take(input.byte());
    DirRecord last{};
    if (Cursor(std::as_bytes(std::span(data))).get(last)) {
      data.erase(0, fixed.size() + last.pathLength);
      record.entryCount = last.entryCount;
    }
    if (input.byte() < 200) record.listingLength = static_cast<std::uint32_t>(data.size());
  }
  const client::Buffer head = client::exchange::encode(record, strings);
  return std::string(view(head.data(), head.size())) + data;
}

// A batch: the names and sizes of the files come from the input one by one.
template <>
std::string request<SmallFileRecord>(Input& input, const std::string& lastReply) {
  const unsigned count = input.byte() % 8U;
  std::string payload = test::le(input.byte() < 200 ? count : input.word(), 4);
  for (unsigned i = 0; i < count; ++i) payload += request<FileReadRecord>(input, lastReply);
  return payload;
}

/// The bytes that a reply must carry behind its fixed part and its strings.
std::size_t dataSize(const auto&, Bytes) { return 0; }
std::size_t dataSize(const FileAttrRecord& record, Bytes) { return record.attrLength; }
std::size_t dataSize(const FileReadRecord& record, Bytes) { return record.size; }
std::size_t dataSize(const HandleRecord&, Bytes data) { return data.size(); }  // a mere copy
std::size_t dataSize(const StatvfsRecord&, Bytes data) {
  return data.size() - data.size() % wireSize<udisk_statvfs>();
}
std::size_t dataSize(const DirRecord& record, Bytes data) {
  EXPECT_TRUE(client::Listing::parse(client::Buffer(data), 0, record.entryCount).ok());
  return record.listingLength;
}

std::size_t dataSize(const SmallFileRecord& batch, Bytes data) {
  Cursor told(data);
  FileReadRecord file{};
  for (unsigned i = 0; i < batch.num_records && told.get(file); ++i) {
    told.take(std::uint64_t{file.pathLength} + file.size);
  }
  return told.ok() ? data.size() - told.rest().size() : data.size() + 1;
}

template <class R>
void check(Bytes reply) {
  Cursor told(reply);
  R answer{};
  told.get(answer);
  // An extended attribute's reply repeats the name alone.
  if constexpr (requires { answer.valueSize; }) answer.pathLength = 0;
  if constexpr (requires { R::kStrings; }) {
    std::apply([&](auto... length) { (told.take(answer.*length), ...); }, R::kStrings);
  }
  EXPECT_TRUE(told.ok() && told.rest().size() == dataSize(answer, told.rest()));
}

// In the order of the table of operations.
template <class... R>
struct Forms {
  static constexpr std::string (*kRequests[])(Input&, const std::string&) = {&request<R>...};
  static constexpr void (*kChecks[])(Bytes) = {&check<R>...};
};
using Table =
    Forms<MountRemoteRequest, MountRemoteRequest, FileAttrRecord, FileCreateRecord,
          FileCreateRecord, FileReadRecord, FileWriteRecord, DirRecord, XattrRecord, TruncateRecord,
          FsyncRecord, ChmodRecord, ChownRecord, StatvfsRecord, MakeDirRecord, RemoveRecord,
          TwoPathRecord, RemoveRecord, TwoPathRecord, HandleRecord, HandleRecord, DirRecord,
          MountRemoteRequest, SmallFileRecord, MountResponseRecord>;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzedDisk disk;
  Input input{view(data, size)};
  disk.restore();
  const std::uint8_t mode = input.byte();
  const bool readOnly = (mode & 3) == 3;
  disk.op.SetReadOnly(readOnly);
  DiskRoot::forceComponentWalk((mode & 4) != 0);
  const std::string before = readOnly ? test::snapshot(disk.disk) : "";
  std::string reply;
  EXPECT_EQ(disk.op.Operations().size(), std::size(Table::kChecks));
  while (!input.rest.empty()) {
    const std::size_t index = input.byte() % std::size(Table::kChecks);
    const std::uint16_t cmd = code(disk.op.Operations()[index].command);
    const std::uint8_t how = input.byte();
    if (cmd == code(Command::kMountRemote) && !kIsolated) continue;
    std::string payload = (how & 1) != 0 ? std::string(input.take(input.word()))
                                         : Table::kRequests[index](input, reply);
    // Now and then the end is missing, or the header tells another length.
    if ((how & 6) == 6) payload.resize(payload.size() - payload.size() % (input.byte() + 1U));
    const std::size_t told = (how & 96) == 96 ? input.word() * 0xffff : 16 + payload.size();
    disk.device.forgetSent();
    disk.op.EventHandle(test::packetOf(test::headerOf(cmd, told) + payload));
    const auto sent = disk.device.sent();
    if (sent.empty()) continue;
    EXPECT_TRUE(sent.size() == 1 && sent[0].starts_with(test::headerOf(cmd, sent[0].size())));
    reply = sent[0].substr(kPacketHeaderSize);
    Table::kChecks[index](std::as_bytes(std::span(reply)));
    FuzzedDisk::checkSecret(reply, view(data, size));
  }
  EXPECT_TRUE(!readOnly || test::snapshot(disk.disk) == before);
  disk.checkOutside();
  return 0;
}

}  // namespace zor::fuzz
