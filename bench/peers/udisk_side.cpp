#include <cstring>
#include <stdexcept>
#include <vector>

#include "client/packet.h"
#include "framed_stream.h"
#include "protocol/commands.h"
#include "protocol/disk_records.h"
#include "protocol/records.h"
#include "side.h"

namespace zor::bench {

namespace {

using wire::Bytes;
using wire::Command;

struct PacketFormat {
  static constexpr std::size_t kHeadSize = kPacketHeaderSize;

  static PacketHeader header(Bytes bytes) {
    PacketHeader header{};
    wire::Cursor(bytes).get(header);
    return header;
  }
  static std::size_t length(const std::byte* head) {
    const PacketHeader packet = header({head, kHeadSize});
    if (packet.magic != kPacketMagic || packet.length < kHeadSize ||
        packet.length > wire::kMaxPacketLength) {
      throw std::runtime_error("the host sent something else than packets");
    }
    return packet.length;
  }
  static std::uint32_t id(Bytes frame) { return header(frame).requestId; }
};

class UdiskSide final : public Side {
 public:
  UdiskSide(int root, UniqueFd socket) : Side(root, 0), mStream(std::move(socket)) {
    for (std::string& name : mFiles) name.insert(0, 1, '/');
    greet();
  }

  double attributes(const Run& run) override {
    const auto begin = [&](unsigned slot) {
      const std::string& path = mFiles[mItems[slot] = mNext++ % kFiles];
      request(Command::kGetFileAttr, slot,
              wire::FileAttrRecord{static_cast<std::uint16_t>(path.size()), 0}, path);
    };
    const auto proceed = [&](unsigned slot, Bytes frame) {
      wire::FileAttrRecord record{};
      wire::Cursor cursor(reply(frame, Command::kGetFileAttr, mFiles[mItems[slot]].size(), record));
      udisk_stat attributes{};
      expect(cursor.get(attributes), "the length of attributes");
      if (run.checked) expect(attributes.st_size == kFileSize, "the size of a file");
      return true;
    };
    return static_cast<double>(mStream.pump(run.inFlight, run.until, begin, proceed));
  }

  double wholeFiles(const Run& run) override {
    const auto begin = [&](unsigned slot) {
      const std::string& path = mFiles[mItems[slot] = mNext++ % kFiles];
      request(Command::kFileRead, slot, readRecord(0, kFileSize, path), path);
    };
    const auto proceed = [&](unsigned slot, Bytes frame) {
      wire::FileReadRecord record{};
      const Bytes data = reply(frame, Command::kFileRead, mFiles[mItems[slot]].size(), record);
      expect(record.size == kFileSize, "the size of what was read");
      if (run.checked) expectContents(data, mFiles[mItems[slot]].substr(1), 0);
      return true;
    };
    return static_cast<double>(mStream.pump(run.inFlight, run.until, begin, proceed));
  }

  double batches(const Run& run) override {
    constexpr std::size_t kRecordSize = wire::wireSize<wire::FileReadRecord>();
    const auto begin = [&](unsigned slot) {
      const std::uint64_t first = mItems[slot] = mNext++ % kBatches * kBatchFiles;
      const std::size_t each = kRecordSize + mFiles.front().size();
      request(Command::kSmallFileRead, slot, wire::SmallFileRecord{kBatchFiles}, {},
              kBatchFiles * each);
      std::byte* at = mStream.add(kBatchFiles * each);
      for (std::uint64_t i = first; i < first + kBatchFiles; ++i) {
        at = wire::encodeAt(at, readRecord(0, kFileSize, mFiles[i]));
        std::memcpy(at, mFiles[i].data(), mFiles[i].size());
        at += mFiles[i].size();
      }
    };
    const auto proceed = [&](unsigned slot, Bytes frame) {
      wire::SmallFileRecord count{};
      wire::Cursor cursor(reply(frame, Command::kSmallFileRead, 0, count));
      for (std::uint64_t i = mItems[slot]; i < mItems[slot] + kBatchFiles; ++i) {
        wire::FileReadRecord record{};
        cursor.get(record);
        cursor.take(record.pathLength);
        const Bytes data = cursor.take(record.size);
        expect(cursor.ok() && data.size() == kFileSize, "the size of a file of a batch");
        if (run.checked) expectContents(data, mFiles[i].substr(1), 0);
      }
      return true;
    };
    const Until batches = run.until.scaled(kBatchFiles);
    return static_cast<double>(mStream.pump(run.inFlight, batches, begin, proceed)) * kBatchFiles;
  }

  double reads(const Run& run) override {
    const std::string path = "/" + std::string(kBigName);
    const auto begin = [&](unsigned slot) {
      mItems[slot] = mNext++ * run.size % kBigSize;
      request(Command::kFileRead, slot, readRecord(mItems[slot], run.size, path), path);
    };
    const auto proceed = [&](unsigned slot, Bytes frame) {
      wire::FileReadRecord record{};
      const Bytes data = reply(frame, Command::kFileRead, path.size(), record);
      expect(record.size == run.size, "the size of what was read");
      if (run.checked) expectContents(data, kBigName, mItems[slot]);
      return true;
    };
    return mebibytes(mStream.pump(run.inFlight, run.until, begin, proceed), run.size);
  }

  double writes(const Run& run) override {
    const std::string path = "/" + std::string(kWrittenName);
    const auto begin = [&](unsigned slot) {
      const std::uint64_t offset = mNext++ * run.size % kBigSize;
      request(Command::kFileWrite, slot,
              wire::FileWriteRecord{static_cast<std::int64_t>(offset),
                                    static_cast<std::int32_t>(run.size), 0, run.size,
                                    static_cast<std::uint16_t>(path.size()), 0, 0},
              path, run.size);
      mStream.refer(data(run.size));
    };
    const auto proceed = [&](unsigned, Bytes frame) {
      return written(frame, path.size(), run.size);
    };
    return mebibytes(mStream.pump(run.inFlight, run.until, begin, proceed), run.size);
  }

  double chunks(const Run& run) override {
    const std::string path = "/" + std::string(kWrittenName);
    constexpr std::size_t kHead = wire::wireSize<wire::WriteChunk>();
    const std::size_t total = kBatchChunks * (kHead + run.size);
    const auto begin = [&](unsigned slot) {
      request(Command::kFileWrite, slot,
              wire::FileWriteRecord{0, static_cast<std::int32_t>(total), 0, 0,
                                    static_cast<std::uint16_t>(path.size()), 0, 0},
              path, total);
      for (unsigned i = 0; i < kBatchChunks; ++i) {
        const std::uint64_t offset = (mNext * kBatchChunks + i) % kChunks * kChunkDistance;
        wire::encodeAt(mStream.add(kHead),
                       wire::WriteChunk{static_cast<std::int64_t>(offset), run.size});
        mStream.refer(data(run.size));
      }
      ++mNext;
    };
    const auto proceed = [&](unsigned, Bytes frame) { return written(frame, path.size(), total); };
    const Until batches = run.until.scaled(kBatchChunks);
    return mebibytes(mStream.pump(run.inFlight, batches, begin, proceed), kBatchChunks * run.size);
  }

  double listings(const Run& run) override {
    const std::string path = "/" + std::string(kFilesName);
    const auto begin = [&](unsigned slot) {
      request(Command::kDirRead, slot, dirRecord(path, {}, 0), path);
    };
    const auto proceed = [&](unsigned, Bytes frame) {
      wire::DirRecord record{};
      const Bytes entries = reply(frame, Command::kDirRead, path.size(), record);
      expect(countEntries(entries, run.checked) == kFiles, "the number of entries");
      return true;
    };
    return static_cast<double>(mStream.pump(run.inFlight, run.until, begin, proceed));
  }

  double unchanged(const Run& run) override {
    const std::string path = "/" + std::string(kManyName);
    wire::DirRecord record{};
    request(Command::kDirRead, 0, dirRecord(path, {}, 0), path);
    mStream.flush();
    std::vector<std::byte> known;
    mStream.receive([&](Bytes frame) {
      const Bytes entries = reply(frame, Command::kDirRead, path.size(), record);
      known.assign(entries.begin(), entries.end());
    });
    if (run.checked) expectChangeSeen(path, known, record.entryCount);
    // Silence means "unchanged"; the flush behind it is always answered.
    const auto begin = [&](unsigned slot) {
      request(Command::kCheckDir, slot, dirRecord(path, known, record.entryCount), path,
              known.size());
      mStream.refer(known);
      flushRequest(slot, path);
    };
    const auto proceed = [&](unsigned, Bytes frame) {
      wire::HandleRecord echo{};
      reply(frame, Command::kFileFlush, path.size(), echo);
      return true;
    };
    return static_cast<double>(mStream.pump(run.inFlight, run.until, begin, proceed));
  }

 private:
  /// The host speaks first: what it serves, and then the disk.
  void greet() {
    for (bool announced = false; !announced;) {
      mStream.receive([&](Bytes frame) {
        const PacketHeader header = PacketFormat::header(frame);
        if (header.cmd != wire::code(Command::kMountRemote)) return;
        mDevId = header.devId;
        announced = true;
      });
    }
    request(Command::kMountResponse, 0, wire::MountResponseRecord{0, 2}, "U:");
    mStream.flush();
  }

  /// `behind` are the bytes that follow, which the caller adds.
  template <class Record>
  void request(Command command, std::uint32_t id, const Record& record, std::string_view path,
               std::size_t behind = 0) {
    const std::size_t size = kPacketHeaderSize + wire::wireSize<Record>() + path.size();
    std::byte* at = mStream.add(size);
    at = wire::encodeAt(at, PacketHeader{kPacketMagic,
                                         mDevId,
                                         wire::code(command),
                                         id,
                                         static_cast<std::uint32_t>(size + behind),
                                         0,
                                         {}});
    at = wire::encodeAt(at, record);
    std::memcpy(at, path.data(), path.size());
  }

  /// The record and what follows the path, of a reply to `command`.
  template <class Record>
  static Bytes reply(Bytes frame, Command command, std::size_t pathLength, Record& record) {
    expect(PacketFormat::header(frame).cmd == wire::code(command), "the command of a reply");
    wire::Cursor cursor(frame);
    cursor.take(kPacketHeaderSize);
    cursor.get(record);
    cursor.take(pathLength);
    expect(cursor.ok(), "the length of a reply");
    return cursor.rest();
  }

  static wire::FileReadRecord readRecord(std::uint64_t offset, std::uint32_t size,
                                         std::string_view path) {
    return {static_cast<std::int64_t>(offset), 0, size, static_cast<std::uint32_t>(path.size()), 0};
  }

  /// Says that all was written.
  static bool written(Bytes frame, std::size_t pathLength, std::size_t size) {
    wire::FileWriteRecord record{};
    reply(frame, Command::kFileWrite, pathLength, record);
    expect(static_cast<std::size_t>(record.file_buf_length) == size, "the result of a write");
    return true;
  }

  static wire::DirRecord dirRecord(std::string_view path, Bytes known, std::uint16_t count) {
    return {0, static_cast<std::uint32_t>(known.size()), static_cast<std::uint16_t>(path.size()),
            count};
  }

  /// Names without "." and "..".
  static unsigned countEntries(Bytes listing, bool checked) {
    wire::ListingReader reader(listing);
    unsigned count = 0;
    for (wire::DirEntry entry{}; reader.next(entry);) {
      if (entry.name == "." || entry.name == "..") continue;
      ++count;
      if (checked) expect(entry.attributes.st_size == kFileSize, "the size of an entry");
    }
    expect(reader.complete(), "the form of a listing");
    return count;
  }

  void flushRequest(std::uint32_t id, const std::string& path) {
    request(Command::kFileFlush, id, wire::HandleRecord{static_cast<std::uint32_t>(path.size()), 0},
            path);
  }

  /// A listing in which one size differs must be answered.
  void expectChangeSeen(const std::string& path, std::vector<std::byte> known,
                        std::uint16_t count) {
    wire::DirEntryRecord first{};
    const auto rest = [&] { return Bytes(known); };
    expect(wire::Cursor(rest()).get(first), "the length of a listing");
    first.attributes.st_size += 1;
    wire::encodeAt(known.data(), first);
    request(Command::kCheckDir, 0, dirRecord(path, known, count), path, known.size());
    mStream.refer(known);
    flushRequest(1, path);
    mStream.flush();
    bool answered = false;
    for (bool flushed = false; !flushed;) {
      mStream.receive([&](Bytes frame) {
        const std::uint16_t command = PacketFormat::header(frame).cmd;
        answered = answered || command == wire::code(Command::kCheckDir);
        flushed = flushed || command == wire::code(Command::kFileFlush);
      });
    }
    expect(answered, "the answer for a changed directory");
  }

  FramedStream<PacketFormat> mStream;
  std::uint8_t mDevId = 0;
  std::uint64_t mNext = 0;
  std::vector<std::uint64_t> mItems = std::vector<std::uint64_t>(64);  ///< by slot: what is read
};

}  // namespace

std::unique_ptr<Side> makeUdiskSide(int root, UniqueFd socket) {
  return std::make_unique<UdiskSide>(root, std::move(socket));
}

}  // namespace zor::bench
