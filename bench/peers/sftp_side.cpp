#include <sys/socket.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>
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
  SftpSide(const Programs& programs, const Tree& tree, UniqueFd near, const UniqueFd& far)
      : mServer({programs.sftpServer, "-d", tree.root()}, far, tree.beside("peer.log")),
        mStream(std::move(near)),
        mData(kMiB) {
    for (unsigned i = 0; i < kFiles; ++i) mFiles.push_back(Tree::fileName(i));
    fillContents(mData, writtenSeed(), 0);
  }

  /// After the descriptor of the server's end was closed here.
  void start() {
    constexpr std::uint32_t kVersion = 3;
    Writer(mStream, Message::kInit, kVersion, 0, 0);  // the version stands where others have an id
    mStream.flush();
    mStream.receive([](Bytes frame) {
      expect(Reader(frame).type() == Message::kVersion && SftpFormat::id(frame) == kVersion,
             "the peer's version");
    });
  }

  std::string_view name() const override { return "peer"; }
  const Server* server() const override { return &mServer; }
  std::uint64_t writtenSeed() const override { return 3'000'000; }

  double run(const WorkTraits& work, const Until& until, bool checked) override {
    mNext = 0;
    switch (work.work) {
      case Work::kAttributes:
        return attributes(work, until, checked);
      case Work::kWholeFile:
        return wholeFile(work.inFlight, until, checked);
      case Work::kFileBatch:
        return wholeFile(work.inFlight * kBatchFiles, until, checked);
      case Work::kRead:
        return read(work, until, checked);
      case Work::kWrite:
        return write(work.inFlight, work.size, work.size, until);
      case Work::kWriteChunks:
        return write(kChunksInFlight, work.size, kChunkDistance, until);
      case Work::kListing:
        return listing(Tree::kFilesName, kFiles, until, checked);
      case Work::kUnchanged:
        return listing(Tree::kManyName, kManyEntries, until, false);
    }
    return 0;
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

  double attributes(const WorkTraits& work, const Until& until, bool checked) {
    const auto begin = [&](unsigned slot) {
      const std::string& path = mFiles[mNext++ % kFiles];
      Writer(mStream, Message::kLstat, slot, 4 + path.size(), 0).string(path);
    };
    const auto proceed = [&](unsigned, Bytes frame) {
      Reader reader(frame);
      expect(reader.type() == Message::kAttributes, "the reply to an attribute query");
      const std::uint64_t size = reader.attributes();
      expect(reader.ok(), "the length of attributes");
      if (checked) expect(size == kFileSize, "the size of a file");
      return true;
    };
    return static_cast<double>(mStream.pump(work.inFlight, until, begin, proceed));
  }

  double wholeFile(unsigned inFlight, const Until& until, bool checked) {
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
        if (checked) expectContents(data, slot.item, 0, kFileSize);
        sendOnHandle(Message::kClose, number, slot.handle);
        return false;
      }
      expectStatus(frame, kStatusOk);
      return true;
    };
    return static_cast<double>(mStream.pump(inFlight, until, begin, proceed));
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

  double read(const WorkTraits& work, const Until& until, bool checked) {
    const std::uint32_t size = std::min(work.size, kMaxRead);
    const unsigned pieces = (work.size + size - 1) / size;
    const unsigned inFlight = work.inFlight * pieces;
    const std::string handle = open(Tree::kBigName, kOpenRead);
    mSlots.assign(inFlight, {});
    const auto begin = [&](unsigned slot) {
      mSlots[slot].item = mNext++ % (kBigSize / size) * size;
      sendRead(slot, handle, mSlots[slot].item, size);
    };
    const auto proceed = [&](unsigned slot, Bytes frame) {
      const Bytes data = dataOf(frame);
      expect(data.size() == size, "the size of what was read");
      if (checked) expectContents(data, Tree::kBigSeed, mSlots[slot].item, size);
      return true;
    };
    const double done =
        mebibytes(mStream.pump(inFlight, until.scaled(1, pieces), begin, proceed), size);
    close(handle);
    return done;
  }

  double write(unsigned inFlight, std::uint32_t size, std::uint64_t distance, const Until& until) {
    const std::string handle = open(Tree::kWrittenName, kOpenWrite);
    const auto begin = [&](unsigned slot) {
      Writer(mStream, Message::kWrite, slot, 4 + handle.size() + 12, size)
          .string(handle)
          .u64(mNext++ * distance % kBigSize)
          .u32(size);
      mStream.refer(Bytes(mData).first(size));
    };
    const auto proceed = [&](unsigned, Bytes frame) {
      expectStatus(frame, kStatusOk);
      return true;
    };
    const double done = mebibytes(mStream.pump(inFlight, until, begin, proceed), size);
    close(handle);
    return done;
  }

  double listing(std::string_view path, unsigned entries, const Until& until, bool checked) {
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

  static double mebibytes(std::uint64_t count, std::uint64_t size) {
    return static_cast<double>(count * size) / static_cast<double>(kMiB);
  }

  Server mServer;
  FramedStream<SftpFormat> mStream;
  std::vector<std::byte> mData;
  std::vector<std::string> mFiles;
  std::uint64_t mNext = 0;
  std::vector<Slot> mSlots;
};

}  // namespace

std::unique_ptr<Side> makeSftpSide(const Programs& programs, const Tree& tree) {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  UniqueFd near(ends[0]);
  UniqueFd far(ends[1]);
  auto side = std::make_unique<SftpSide>(programs, tree, std::move(near), far);
  far.reset();
  side->start();
  return side;
}

}  // namespace zor::bench
