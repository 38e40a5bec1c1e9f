#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "client/connection.h"
#include "client/packet.h"
#include "framed_stream.h"
#include "protocol/commands.h"
#include "protocol/disk_records.h"
#include "protocol/records.h"
#include "side.h"

namespace zor::bench {

namespace {

using client::kHeaderSize;
using client::PacketHeader;
using wire::Bytes;
using wire::Command;

struct PacketFormat {
  static constexpr std::size_t kHeadSize = kHeaderSize;

  static PacketHeader header(Bytes bytes) {
    PacketHeader header{};
    wire::Cursor(bytes).get(header);
    return header;
  }
  static std::size_t length(const std::byte* head) {
    const PacketHeader packet = header({head, kHeadSize});
    if (packet.magic != client::kPacketMagic || packet.length < kHeadSize ||
        packet.length > wire::kMaxPacketLength) {
      throw std::runtime_error("the host sent something else than packets");
    }
    return packet.length;
  }
  static std::uint32_t id(Bytes frame) { return header(frame).requestId; }
};

class UdiskSide final : public Side {
 public:
  UdiskSide(const Programs& programs, const Tree& tree)
      : mSocket(tree.beside("host.sock")),
        mHost(std::vector<std::string>{programs.host, "serve", tree.root(), "--socket", mSocket},
              UniqueFd(), tree.beside("host.log")),
        mStream(connect()),
        mData(kMiB) {
    for (unsigned i = 0; i < kFiles; ++i) mFiles.push_back("/" + Tree::fileName(i));
    fillContents(mData, writtenSeed(), 0);
    greet();
  }

  std::string_view name() const override { return "udisk"; }
  const Server* server() const override { return &mHost; }
  std::uint64_t writtenSeed() const override { return 2'000'000; }

  double run(const WorkTraits& work, const Until& until, bool checked) override {
    mNext = 0;
    mItems.assign(work.inFlight, 0);
    switch (work.work) {
      case Work::kAttributes:
        return attributes(work, until, checked);
      case Work::kWholeFile:
        return wholeFile(work, until, checked);
      case Work::kFileBatch:
        return fileBatch(work, until, checked);
      case Work::kRead:
        return read(work, until, checked);
      case Work::kWrite:
        return write(work, until);
      case Work::kWriteChunks:
        return writeChunks(work, until);
      case Work::kListing:
        return listing(work, until, checked);
      case Work::kUnchanged:
        return unchanged(work, until, checked);
    }
    return 0;
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
    const std::size_t size = kHeaderSize + wire::wireSize<Record>() + path.size();
    std::byte* at = mStream.add(size);
    at = wire::encodeAt(at, PacketHeader{client::kPacketMagic,
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
    cursor.take(kHeaderSize);
    cursor.get(record);
    cursor.take(pathLength);
    expect(cursor.ok(), "the length of a reply");
    return cursor.rest();
  }

  double attributes(const WorkTraits& work, const Until& until, bool checked) {
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
      if (checked) expect(attributes.st_size == kFileSize, "the size of a file");
      return true;
    };
    return static_cast<double>(mStream.pump(work.inFlight, until, begin, proceed));
  }

  static wire::FileReadRecord readRecord(std::uint64_t offset, std::uint32_t size,
                                         std::string_view path) {
    return {static_cast<std::int64_t>(offset), 0, size, static_cast<std::uint32_t>(path.size()), 0};
  }

  double wholeFile(const WorkTraits& work, const Until& until, bool checked) {
    const auto begin = [&](unsigned slot) {
      const std::string& path = mFiles[mItems[slot] = mNext++ % kFiles];
      request(Command::kFileRead, slot, readRecord(0, kFileSize, path), path);
    };
    const auto proceed = [&](unsigned slot, Bytes frame) {
      wire::FileReadRecord record{};
      const Bytes data = reply(frame, Command::kFileRead, mFiles[mItems[slot]].size(), record);
      expect(record.size == kFileSize, "the size of what was read");
      if (checked) expectContents(data, mItems[slot], 0, kFileSize);
      return true;
    };
    return static_cast<double>(mStream.pump(work.inFlight, until, begin, proceed));
  }

  double fileBatch(const WorkTraits& work, const Until& until, bool checked) {
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
        if (checked) expectContents(data, i, 0, kFileSize);
      }
      return true;
    };
    const Until batches = until.scaled(kBatchFiles);
    return static_cast<double>(mStream.pump(work.inFlight, batches, begin, proceed)) * kBatchFiles;
  }

  double read(const WorkTraits& work, const Until& until, bool checked) {
    const std::string path = "/" + std::string(Tree::kBigName);
    const auto begin = [&](unsigned slot) {
      mItems[slot] = mNext++ * work.size % kBigSize;
      request(Command::kFileRead, slot, readRecord(mItems[slot], work.size, path), path);
    };
    const auto proceed = [&](unsigned slot, Bytes frame) {
      wire::FileReadRecord record{};
      const Bytes data = reply(frame, Command::kFileRead, path.size(), record);
      expect(record.size == work.size, "the size of what was read");
      if (checked) expectContents(data, Tree::kBigSeed, mItems[slot], work.size);
      return true;
    };
    return mebibytes(mStream.pump(work.inFlight, until, begin, proceed), work.size);
  }

  /// Says that all was written.
  static bool written(Bytes frame, std::size_t pathLength, std::size_t size) {
    wire::FileWriteRecord record{};
    reply(frame, Command::kFileWrite, pathLength, record);
    expect(static_cast<std::size_t>(record.file_buf_length) == size, "the result of a write");
    return true;
  }

  double write(const WorkTraits& work, const Until& until) {
    const std::string path = "/" + std::string(Tree::kWrittenName);
    const auto begin = [&](unsigned slot) {
      const std::uint64_t offset = mNext++ * work.size % kBigSize;
      request(Command::kFileWrite, slot,
              wire::FileWriteRecord{static_cast<std::int64_t>(offset),
                                    static_cast<std::int32_t>(work.size), 0, work.size,
                                    static_cast<std::uint16_t>(path.size()), 0, 0},
              path, work.size);
      mStream.refer(Bytes(mData).first(work.size));
    };
    const auto proceed = [&](unsigned, Bytes frame) {
      return written(frame, path.size(), work.size);
    };
    return mebibytes(mStream.pump(work.inFlight, until, begin, proceed), work.size);
  }

  double writeChunks(const WorkTraits& work, const Until& until) {
    const std::string path = "/" + std::string(Tree::kWrittenName);
    constexpr std::size_t kHead = wire::wireSize<wire::WriteChunk>();
    constexpr std::size_t kSize = kBatchChunks * (kHead + kChunkSize);
    const auto begin = [&](unsigned slot) {
      request(Command::kFileWrite, slot,
              wire::FileWriteRecord{0, static_cast<std::int32_t>(kSize), 0, 0,
                                    static_cast<std::uint16_t>(path.size()), 0, 0},
              path, kSize);
      for (unsigned i = 0; i < kBatchChunks; ++i) {
        const std::uint64_t offset = (mNext * kBatchChunks + i) % kChunks * kChunkDistance;
        wire::encodeAt(mStream.add(kHead),
                       wire::WriteChunk{static_cast<std::int64_t>(offset), kChunkSize});
        mStream.refer(Bytes(mData).first(kChunkSize));
      }
      ++mNext;
    };
    const auto proceed = [&](unsigned, Bytes frame) { return written(frame, path.size(), kSize); };
    const Until batches = until.scaled(kBatchChunks);
    return mebibytes(mStream.pump(work.inFlight, batches, begin, proceed),
                     kBatchChunks * kChunkSize);
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

  double listing(const WorkTraits& work, const Until& until, bool checked) {
    const std::string path = "/" + std::string(Tree::kFilesName);
    const auto begin = [&](unsigned slot) {
      request(Command::kDirRead, slot, dirRecord(path, {}, 0), path);
    };
    const auto proceed = [&](unsigned, Bytes frame) {
      wire::DirRecord record{};
      const Bytes entries = reply(frame, Command::kDirRead, path.size(), record);
      expect(countEntries(entries, checked) == kFiles, "the number of entries");
      return true;
    };
    return static_cast<double>(mStream.pump(work.inFlight, until, begin, proceed));
  }

  double unchanged(const WorkTraits& work, const Until& until, bool checked) {
    const std::string path = "/" + std::string(Tree::kManyName);
    wire::DirRecord record{};
    request(Command::kDirRead, 0, dirRecord(path, {}, 0), path);
    mStream.flush();
    std::vector<std::byte> known;
    mStream.receive([&](Bytes frame) {
      const Bytes entries = reply(frame, Command::kDirRead, path.size(), record);
      known.assign(entries.begin(), entries.end());
    });
    if (checked) expectChangeSeen(path, known, record.entryCount);
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
    return static_cast<double>(mStream.pump(work.inFlight, until, begin, proceed));
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

  UniqueFd connect() const {
    for (int i = 0; i < 4000 && mHost.running(); ++i) {
      auto socket = client::connectUnix(mSocket, std::chrono::seconds(10));
      if (socket) return std::move(*socket);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    throw std::runtime_error("the host cannot be reached; its log:\n" + mHost.log());
  }

  static double mebibytes(std::uint64_t count, std::uint64_t size) {
    return static_cast<double>(count * size) / static_cast<double>(kMiB);
  }

  const std::string mSocket;
  Server mHost;
  FramedStream<PacketFormat> mStream;
  std::vector<std::byte> mData;
  std::vector<std::string> mFiles;
  std::uint8_t mDevId = 0;
  std::uint64_t mNext = 0;
  std::vector<std::uint64_t> mItems;  ///< by slot: what is read
};

}  // namespace

std::unique_ptr<Side> makeUdiskSide(const Programs& programs, const Tree& tree) {
  return std::make_unique<UdiskSide>(programs, tree);
}

}  // namespace zor::bench
