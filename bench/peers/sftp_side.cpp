#include <algorithm>
#include <stdexcept>
#include <vector>

#include "framed_stream.h"
#include "sftp_messages.h"
#include "side.h"

namespace zor::bench {

namespace {

using namespace sftp;
using wire::Bytes;

/// The most that the server gives at a time; a larger read is made of pieces,
/// with as many bytes in flight.
constexpr std::uint32_t kMaxRead = 255 << 10;

/// Small writes in flight.
constexpr unsigned kChunksInFlight = 32;

/// Requests for the names of one directory in flight.
constexpr unsigned kNamesInFlight = 4;

std::string text(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void expectStatus(Bytes frame, std::uint32_t status) {
  Reader reader(frame);
  expect(reader.type() == Message::kStatus && reader.u32() == status && reader.ok(),
         "the status of a request");
}

class SftpSide final : public Side {
 public:
  SftpSide(int root, UniqueFd socket) : Side(root, 1), mStream(std::move(socket)) {
    constexpr std::uint32_t kVersion = 3;
    Writer(mStream, Message::kInit, kVersion, 0, 0);  // the version stands where others have an id
    mStream.flush();
    mStream.receive([](Bytes frame) {
      expect(Reader(frame).type() == Message::kVersion && SftpFormat::id(frame) == kVersion,
             "the peer's version");
    });
  }

  double attributes(const Run& run) override {
    const auto begin = [&](unsigned slot) {
      const std::string& path = mFiles[mNext++ % kFiles];
      Writer(mStream, Message::kLstat, slot, 4 + path.size(), 0).string(path);
    };
    const auto proceed = [&](unsigned, Bytes frame) {
      Reader reader(frame);
      expect(reader.type() == Message::kAttributes, "the reply to an attribute query");
      const std::uint64_t size = reader.attributes();
      expect(reader.ok(), "the length of attributes");
      if (run.checked) expect(size == kFileSize, "the size of a file");
      return true;
    };
    return static_cast<double>(mStream.pump(run.inFlight, run.until, begin, proceed));
  }

  double wholeFiles(const Run& run) override { return files(run.inFlight, run); }
  double batches(const Run& run) override { return files(run.inFlight * kBatchFiles, run); }
  double files(unsigned inFlight, const Run& run) {
    mSlots.assign(inFlight, {});
    const auto begin = [&](unsigned slot) {
      mSlots[slot].item = mNext++ % kFiles;
      sendOpen(slot, mFiles[mSlots[slot].item], kOpenRead);
    };
    const auto proceed = [&](unsigned number, Bytes frame) {
      Slot& slot = mSlots[number];
      if (slot.sent == Message::kOpen) {
        slot.handle = handleOf(frame);
        sendRead(number, slot.handle, 0, kFileSize);
        return false;
      }
      if (slot.sent == Message::kRead) {
        const Bytes data = dataOf(frame);
        expect(data.size() == kFileSize, "the size of a file");
        if (run.checked) expectContents(data, mFiles[slot.item], 0);
        sendOnHandle(Message::kClose, number, slot.handle);
        return false;
      }
      expectStatus(frame, kStatusOk);
      return true;
    };
    return static_cast<double>(mStream.pump(inFlight, run.until, begin, proceed));
  }

  double reads(const Run& run) override {
    const std::uint32_t size = std::min(run.size, kMaxRead);
    const unsigned pieces = (run.size + size - 1) / size;
    const unsigned inFlight = run.inFlight * pieces;
    const std::string handle = open(kBigName, kOpenRead);
    mSlots.assign(inFlight, {});
    const auto begin = [&](unsigned slot) {
      mSlots[slot].item = mNext++ % (kBigSize / size) * size;
      sendRead(slot, handle, mSlots[slot].item, size);
    };
    const auto proceed = [&](unsigned slot, Bytes frame) {
      const Bytes data = dataOf(frame);
      expect(data.size() == size, "the size of what was read");
      if (run.checked) expectContents(data, kBigName, mSlots[slot].item);
      return true;
    };
    const double done =
        mebibytes(mStream.pump(inFlight, run.until.scaled(1, pieces), begin, proceed), size);
    close(handle);
    return done;
  }

  double writes(const Run& run) override { return write(run.inFlight, run.size, run.size, run); }
  double chunks(const Run& run) override {
    return write(kChunksInFlight, run.size, kChunkDistance, run);
  }

  double listings(const Run& run) override {
    return list(kFilesName, kFiles, run.until, run.checked);
  }
  double unchanged(const Run& run) override {
    return list(kManyName, kManyEntries, run.until, false);
  }

 private:
  struct Slot {
    std::uint64_t item = 0;
    Message sent{};
    std::string handle;
    unsigned outstanding = 0;
    unsigned count = 0;
    bool end = false;
  };

  void sendOpen(unsigned slot, std::string_view path, std::uint32_t flags) {
    Writer(mStream, Message::kOpen, slot, 4 + path.size() + 8, 0).string(path).u32(flags).u32(0);
    mSlots[slot].sent = Message::kOpen;
  }
  void sendOnHandle(Message message, unsigned slot, const std::string& handle) {
    Writer(mStream, message, slot, 4 + handle.size(), 0).string(handle);
    mSlots[slot].sent = message;
  }
  void sendRead(unsigned slot, const std::string& handle, std::uint64_t offset,
                std::uint32_t size) {
    Writer(mStream, Message::kRead, slot, 4 + handle.size() + 12, 0)
        .string(handle)
        .u64(offset)
        .u32(size);
    mSlots[slot].sent = Message::kRead;
  }

  static std::string handleOf(Bytes frame) {
    Reader reader(frame);
    expect(reader.type() == Message::kHandle, "the reply to an open");
    return text(reader.string());
  }
  static Bytes dataOf(Bytes frame) {
    Reader reader(frame);
    expect(reader.type() == Message::kData, "the reply to a read");
    return reader.string();
  }

  std::string open(std::string_view path, std::uint32_t flags) {
    mSlots.assign(1, {});
    sendOpen(0, path, flags);
    mStream.flush();
    std::string handle;
    mStream.receive([&](Bytes frame) { handle = handleOf(frame); });
    return handle;
  }
  void close(const std::string& handle) {
    sendOnHandle(Message::kClose, 0, handle);
    mStream.flush();
    mStream.receive([](Bytes frame) { expectStatus(frame, kStatusOk); });
  }

  double write(unsigned inFlight, std::uint32_t size, std::uint64_t distance, const Run& run) {
    const std::string handle = open(kWrittenName, kOpenWrite);
    const auto begin = [&](unsigned slot) {
      Writer(mStream, Message::kWrite, slot, 4 + handle.size() + 12, size)
          .string(handle)
          .u64(mNext++ * distance % kBigSize)
          .u32(size);
      mStream.refer(data(size));
    };
    const auto proceed = [&](unsigned, Bytes frame) {
      expectStatus(frame, kStatusOk);
      return true;
    };
    const double done = mebibytes(mStream.pump(inFlight, run.until, begin, proceed), size);
    close(handle);
    return done;
  }

  double list(std::string_view path, unsigned entries, const Until& until, bool checked) {
    mSlots.assign(1, {});
    const auto begin = [&](unsigned slot) {
      mSlots[slot] = {};
      Writer(mStream, Message::kOpenDir, slot, 4 + path.size(), 0).string(path);
      mSlots[slot].sent = Message::kOpenDir;
    };
    const auto proceed = [&](unsigned number, Bytes frame) {
      Slot& slot = mSlots[number];
      if (slot.sent == Message::kClose) {
        expectStatus(frame, kStatusOk);
        expect(slot.count == entries, "the number of entries");
        return true;
      }
      if (slot.sent == Message::kOpenDir) {
        slot.handle = handleOf(frame);
        for (; slot.outstanding < kNamesInFlight; ++slot.outstanding) {
          sendOnHandle(Message::kReadDir, number, slot.handle);
        }
        return false;
      }
      --slot.outstanding;
      Reader reader(frame);
      if (reader.type() == Message::kName) {
        slot.count += countNames(reader, checked);
        ++slot.outstanding;
        sendOnHandle(Message::kReadDir, number, slot.handle);
      } else {
        expectStatus(frame, kStatusEnd);
        if (slot.outstanding == 0) sendOnHandle(Message::kClose, number, slot.handle);
      }
      return false;
    };
    return static_cast<double>(mStream.pump(1, until, begin, proceed));
  }

  static unsigned countNames(Reader& reader, bool checked) {
    unsigned count = 0;
    for (std::uint32_t left = reader.u32(); left > 0 && reader.ok(); --left) {
      const Bytes bytes = reader.string();
      reader.string();  // the same as a line for people
      const std::uint64_t size = reader.attributes();
      const std::string_view name(reinterpret_cast<const char*>(bytes.data()), bytes.size());
      if (name == "." || name == "..") continue;
      ++count;
      if (checked) expect(size == kFileSize, "the size of an entry");
    }
    expect(reader.ok(), "the form of a listing");
    return count;
  }

  FramedStream<SftpFormat> mStream;
  std::uint64_t mNext = 0;
  std::vector<Slot> mSlots;
};

}  // namespace

std::unique_ptr<Side> makeSftpSide(int root, UniqueFd socket) {
  return std::make_unique<SftpSide>(root, std::move(socket));
}

}  // namespace zor::bench
