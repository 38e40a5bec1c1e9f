// Fetching from a host that misbehaves.
#include "download.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <map>
#include <thread>

#include "exchange.h"
#include "temporary_directory.h"

namespace zor::remote::cli {
namespace {

using test::fs::exists;
using ::testing::HasSubstr;

/// A file as the host shows it: attributes for each time that it is asked for
/// them (the first is the listing), and what a read gives.
struct PlayedFile {
  std::vector<udisk_stat> versions;  ///< the last stays; size -1: it is gone
  std::function<std::optional<std::string>(std::uint64_t offset, std::uint32_t size)> read;
};

/// Serves one directory of such files until the client goes. A read without a
/// value ends the connection.
class PlayedHost {
 public:
  explicit PlayedHost(std::map<std::string, PlayedFile> files) : mFiles(std::move(files)) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) throw std::bad_alloc();
    mClientEnd = UniqueFd(fds[0]);
    mSocket = UniqueFd(fds[1]);
    mThread = std::thread([this] { serve(); });
  }
  ~PlayedHost() { mThread.join(); }

  UniqueFd takeClientEnd() { return std::move(mClientEnd); }

 private:
  static PacketHeader header(wire::Command command, std::uint32_t id, std::size_t payload) {
    return {
        kPacketMagic, 1, wire::code(command), id, static_cast<std::uint32_t>(16 + payload), 0, {}};
  }

  void send(wire::Command command, std::uint32_t id, const Buffer& payload) {
    Buffer packet(wire::encoded(header(command, id, payload.size())));
    packet.append(payload.bytes());
    ::send(mSocket.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
  }

  udisk_stat version(PlayedFile& file) {
    const udisk_stat now = file.versions.front();
    if (file.versions.size() > 1) file.versions.erase(file.versions.begin());
    return now;
  }

  std::optional<Buffer> answer(wire::Command command, wire::Cursor cursor) {
    using namespace exchange;
    if (command == wire::Command::kDirRead) {
      Buffer listing;
      for (auto& [name, file] : mFiles) {
        const auto length = static_cast<std::uint16_t>(name.size() + 1);
        listing.append(wire::encoded(wire::DirEntryRecord{version(file), length}));
        listing.append(std::as_bytes(std::span(name.c_str(), length)));
      }
      listing.append(wire::encoded(std::uint8_t{0}));
      wire::DirRecord record{};
      record.listingLength = static_cast<std::uint32_t>(listing.size());
      record.entryCount = static_cast<std::uint16_t>(mFiles.size());
      Buffer payload = encode(record, {"/"});
      payload.append(listing.bytes());
      return payload;
    }
    const auto path = [&cursor](std::size_t length) {
      const wire::Bytes bytes = cursor.take(length);
      return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    };
    if (command == wire::Command::kGetFileAttr) {
      wire::FileAttrRecord record{};
      cursor.get(record);
      const std::string name = path(record.pathLength);
      const udisk_stat now = version(mFiles.at(name.substr(1)));
      record.attrLength = now.st_size < 0 ? 0 : 120;
      Buffer payload = encode(record, {name});
      if (now.st_size >= 0) payload.append(wire::encoded(now));
      return payload;
    }
    wire::FileReadRecord record{};
    cursor.get(record);
    const std::string name = path(record.pathLength);
    const auto data =
        mFiles.at(name.substr(1)).read(static_cast<std::uint64_t>(record.offset), record.size);
    if (!data) return std::nullopt;
    record.size = static_cast<std::uint32_t>(data->size());
    Buffer payload = encode(record, {name});
    payload.append(std::as_bytes(std::span(*data)));
    return payload;
  }

  void serve() {
    send(wire::Command::kMountRemote, wire::kAnnouncementRequestId,
         Buffer(std::string_view("\0\0\0\0", 4)));
    PacketReader reader;
    bool ended = false;
    while (!ended) {
      const auto room = reader.room();
      const ssize_t got = ::recv(mSocket.get(), room[0].iov_base, room[0].iov_len, 0);
      if (got <= 0) break;
      Status status = reader.consume(
          static_cast<std::size_t>(got), [&](const PacketHeader& head, const Buffer& payload) {
            const auto command = static_cast<wire::Command>(head.cmd);
            if (command == wire::Command::kMountResponse || ended) return;
            const auto reply = answer(command, wire::Cursor(payload.bytes()));
            ended = !reply;
            if (reply) send(command, head.requestId, *reply);
          });
      if (!status) break;
    }
    mSocket.reset();
  }

  std::map<std::string, PlayedFile> mFiles;
  UniqueFd mClientEnd;
  UniqueFd mSocket;
  std::thread mThread;
};

udisk_stat attributes(std::int64_t size, std::int64_t time = 1000, std::uint32_t mode = 0100640) {
  udisk_stat result{};
  result.st_size = size;
  result.st_mtim = {time, 5};
  result.st_mode = mode;
  return result;
}

/// Reads that give at most `most` bytes of `contents` at a time.
auto reading(std::string contents, std::uint32_t most = 0xffffffff) {
  return [contents = std::move(contents), most](std::uint64_t offset, std::uint32_t size) {
    return std::optional(
        contents.substr(std::min<std::size_t>(offset, contents.size()), std::min(size, most)));
  };
}

class DownloadTest : public ::testing::Test {
 protected:
  /// Fetches all that the host shows; what it said is in mMessages.
  bool fetch(std::map<std::string, PlayedFile> files) {
    PlayedHost host(std::move(files));
    ::testing::internal::CaptureStderr();
    bool ok = false;
    {
      EventLoop loop;
      Link link(host.takeClientEnd(), {});
      const Announcement announcement = *link.waitForAnnouncement(std::chrono::seconds(20));
      Disk disk(link);
      Output out;
      Console console;
      Context context{disk, link, announcement, loop, out, console};
      Download download(context, {.recursive = true, .batches = false});
      download.addContents("/", *LocalDir::open(mDirectory.path().string()));
      ok = download.run();
    }
    mMessages = ::testing::internal::GetCapturedStderr();
    return ok;
  }

  std::string fetched(const std::string& name) { return test::readFile(mDirectory / name); }
  std::size_t namesHere() {
    return static_cast<std::size_t>(
        std::distance(test::fs::directory_iterator(mDirectory.path()), {}));
  }

  test::TemporaryDirectory mDirectory;
  std::string mMessages;
};

TEST_F(DownloadTest, CopesWithWhatFilesDo) {
  std::string big(2'500'000, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i % 251);
  auto attempts = std::make_shared<int>(0);
  const struct {
    const char* why;
    PlayedFile file;
    std::optional<std::string> expected;
    const char* message;
  } kCases[] = {
      {"reads come in small pieces", {{attributes(2'500'000)}, reading(big, 100'000)}, big, ""},
      {"attributes did not come with the listing",
       {{attributes(0, 0, 0), attributes(3)}, reading("abc")},
       "abc",
       ""},
      {"grew after it was listed",
       {{attributes(3), attributes(5, 1001)}, reading("abcde")},
       "abcde",
       ""},
      {"shrank after it was listed",
       {{attributes(5), attributes(3, 1001)}, reading("abc")},
       "abc",
       ""},
      {"changed between two reads",
       {{attributes(2'500'000), attributes(2'500'000, 1001)},
        [big, attempts](std::uint64_t offset, std::uint32_t size) {
          if (offset == 0) ++*attempts;
          return std::optional(*attempts == 1 ? std::string(size, 'x') : big.substr(offset, size));
        }},
       big,
       ""},
      {"never stays the same",
       {{attributes(3), attributes(4, 1001), attributes(5, 1002), attributes(6, 1003)},
        reading("abcdefgh")},
       std::nullopt,
       "kept changing"},
      {"vanished", {{attributes(3), attributes(-1)}, reading("")}, std::nullopt, "vanished"},
      {"cannot be read", {{attributes(3)}, reading("")}, std::nullopt, "cannot read"},
      {"became a directory",
       {{attributes(3), attributes(3, 1000, 040755)}, reading("")},
       std::nullopt,
       "changing"},
      {"is a pipe", {{attributes(0, 0, 010600)}, reading("")}, std::nullopt, "named pipe"},
  };
  for (const auto& each : kCases) {
    const bool ok = fetch({{"f", each.file}, {"other", {{attributes(2)}, reading("ok")}}});
    EXPECT_EQ(ok, each.expected.has_value()) << each.why << ": " << mMessages;
    EXPECT_THAT(mMessages, HasSubstr(each.message)) << each.why;
    EXPECT_EQ(exists(mDirectory / "f"), each.expected.has_value()) << each.why;
    EXPECT_TRUE(fetched("f") == each.expected.value_or("")) << each.why;
    EXPECT_EQ(fetched("other"), "ok") << each.why;
    EXPECT_EQ(namesHere(), each.expected ? 2U : 1U) << each.why << ": no temporary file stays";
    test::fs::remove(mDirectory / "f");
  }
}

TEST_F(DownloadTest, KeepsTheOldFileWhenTheLinkIsLost) {
  test::writeFile(mDirectory / "f", "old");
  const auto half = [](std::uint64_t offset, std::uint32_t size) {
    return offset < 1'000'000 ? std::optional(std::string(size, 'n')) : std::nullopt;
  };
  EXPECT_FALSE(fetch({{"f", {{attributes(9'000'000)}, half}}}));
  EXPECT_EQ(fetched("f"), "old");
  EXPECT_EQ(namesHere(), 1U);
  EXPECT_THAT(mMessages, HasSubstr("stopped: the host closed the connection"));
  EXPECT_THAT(mMessages, HasSubstr("fetched 0 files of 1"));
}

TEST_F(DownloadTest, WritesNothingOutside) {
  const test::TemporaryDirectory elsewhere;
  test::writeFile(elsewhere / "victim", "untouched");
  test::fs::create_symlink(elsewhere / "victim", mDirectory / "f");
  test::fs::create_directory_symlink(elsewhere.path(), mDirectory / "sub");
  EXPECT_FALSE(fetch({{"f", {{attributes(3)}, reading("new")}},
                      {"..", {{attributes(3)}, reading("bad")}},
                      {"sub", {{attributes(0, 1, 040755)}, reading("")}}}));
  EXPECT_FALSE(test::fs::is_symlink(mDirectory / "f"));
  EXPECT_EQ(fetched("f"), "new");
  EXPECT_EQ(test::readFile(elsewhere / "victim"), "untouched");
  EXPECT_THAT(mMessages, HasSubstr("cannot make a directory for '/sub'"));
}

}  // namespace
}  // namespace zor::remote::cli
