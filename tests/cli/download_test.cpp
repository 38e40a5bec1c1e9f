// Fetching from a host that misbehaves.
#include "cli/download.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <map>
#include <thread>

#include "cli/command_line.h"
#include "protocol/records.h"
#include "support/host_packets.h"
#include "support/temporary_directory.h"

namespace zor::client::cli {
namespace {

using test::fs::exists;
using ::testing::HasSubstr;

/// A file as the host shows it: attributes for each time that it is asked for
/// them (the first is the listing), and what a read gives.
struct PlayedFile {
  std::vector<udisk_stat> versions;  ///< the last stays; size -1: it is gone
  std::function<std::optional<std::string>(std::uint64_t offset, std::uint32_t size)> read;
};

/// Serves such files in each directory that it is asked for until the client
/// goes. A read without a value ends the connection.
class PlayedHost {
 public:
  /// On a socket pair, or with the first client of `listener`.
  explicit PlayedHost(std::map<std::string, PlayedFile> files, UniqueFd listener = {})
      : mFiles(std::move(files)) {
    if (!listener) std::tie(mClientEnd, mSocket) = test::socketPair();
    mThread = std::thread(&PlayedHost::serve, this, std::move(listener));
  }
  ~PlayedHost() { mThread.join(); }

  UniqueFd takeClientEnd() { return std::move(mClientEnd); }

 private:
  /// The file's attributes as they travel; nothing of one that is gone.
  static std::string version(PlayedFile& file) {
    const auto bytes = wire::encoded(file.versions.front());
    const bool gone = file.versions.front().st_size < 0;
    if (file.versions.size() > 1) file.versions.erase(file.versions.begin());
    return gone ? "" : std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }

  std::optional<std::string> answer(const test::Packet& request) {
    using zor::test::le;
    if (request.cmd == 107) {
      std::string listing;
      for (auto& [name, file] : mFiles) {
        listing += version(file) + le(name.size() + 1, 2) + name + '\0';
      }
      const std::string path = request.bytes.substr(32);
      return le(0, 8) + le(listing.size() + 1, 4) + le(path.size(), 2) + le(mFiles.size(), 2) +
             path + listing + '\0';
    }
    if (request.cmd == 117) return request.bytes.substr(16);
    if (request.cmd == 102) {
      const std::string path = request.bytes.substr(20);
      PlayedFile root{{udisk_stat{}}, {}};
      const std::string found =
          version(path == "/" ? root : mFiles.at(std::string(baseName(path))));
      return le(path.size(), 2) + le(found.size(), 2) + path + found;
    }
    wire::FileReadRecord record{};
    wire::Cursor(std::as_bytes(std::span(request.bytes)).subspan(16)).get(record);
    const std::string path = request.bytes.substr(40);
    const auto offset = static_cast<std::uint64_t>(record.offset);
    const auto data = mFiles.at(std::string(baseName(path))).read(offset, record.size);
    if (!data) return std::nullopt;
    return le(offset, 8) + le(0, 4) + le(data->size(), 4) + le(path.size(), 4) + le(0, 4) + path +
           *data;
  }

  void serve(const UniqueFd& listener) {
    if (listener) mSocket = UniqueFd(::accept(listener.get(), nullptr, nullptr));
    // Of a disk that may be changed.
    test::sendBytes(mSocket.get(), test::hex(test::kAnnouncement).substr(0, 22) + '\0');
    for (auto request = test::takePacket(mSocket.get()); request.cmd != 0;
         request = test::takePacket(mSocket.get())) {
      const auto payload = request.cmd == 200 ? "" : answer(request);
      if (!payload) break;
      const std::string packet = test::reply(request, *payload);
      if (request.cmd != 200) ::send(mSocket.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
    }
    mSocket.reset();
  }

  std::map<std::string, PlayedFile> mFiles;
  UniqueFd mClientEnd, mSocket;
  std::thread mThread;
};

udisk_stat attributes(std::int64_t size, std::int64_t time = 1000, std::uint32_t mode = 0100640) {
  return {0, 0, 0, size, 0, 0, 0, {}, {time, 5}, {}, mode, 0, 0, 0};
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
  /// Fetches all that the host shows; its messages are in mMessages.
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
      CommandContext context{disk, link, announcement, loop, out, console};
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
    std::vector<udisk_stat> versions;
    decltype(PlayedFile::read) read;
    std::optional<std::string> expected;
    const char* message = "";
  } kCases[] = {
      {"reads come in small pieces", {attributes(2'500'000)}, reading(big, 100'000), big},
      {"attributes did not come with the listing",
       {attributes(0, 0, 0), attributes(3)},
       reading("abc"),
       "abc"},
      {"grew after it was listed", {attributes(3), attributes(5, 1001)}, reading("abcde"), "abcde"},
      {"shrank after it was listed", {attributes(5), attributes(3, 1001)}, reading("abc"), "abc"},
      {"changed between two reads",
       {attributes(2'500'000), attributes(2'500'000, 1001)},
       [big, attempts](std::uint64_t offset, std::uint32_t size) {
         if (offset == 0) ++*attempts;
         return std::optional(*attempts == 1 ? std::string(size, 'x') : big.substr(offset, size));
       },
       big},
      {"never stays the same",
       {attributes(3), attributes(4, 1001), attributes(5, 1002), attributes(6, 1003)},
       reading("abcdefgh"),
       {},
       "kept changing"},
      {"vanished", {attributes(3), attributes(-1)}, reading(""), {}, "vanished"},
      {"cannot be read", {attributes(3)}, reading(""), {}, "cannot read"},
      {"became a directory",
       {attributes(3), attributes(3, 1000, 040755)},
       reading(""),
       {},
       "changing"},
      {"is a pipe", {attributes(0, 0, 010600)}, reading(""), {}, "named pipe"},
  };
  for (const auto& each : kCases) {
    const bool ok =
        fetch({{"f", {each.versions, each.read}}, {"other", {{attributes(2)}, reading("ok")}}});
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

TEST_F(DownloadTest, AChainOfDirectoriesEndsWherePathsGetTooLong) {
  std::string name(250, 'd'), longest;
  for (int depth = 0; depth < 17; ++depth) longest += '/' + name;
  const std::pair<std::vector<std::string>, std::string> kCases[] = {
      {{"ls", "-R", "/" + name}, ""},
      {{"rm", "-r", "/" + name}, "udisk-remote: removed 16 names; 1 failure\n"},
      {{"get", "-r", "/" + name, mDirectory / "got"}, "udisk-remote: fetched 16 files"}};
  for (auto [arguments, end] : kCases) {
    arguments.insert(arguments.begin(), {"udisk-remote", "--socket", mDirectory / "socket"});
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    PlayedHost host(
        {{name, {{attributes(0, 1, 040755)}, {}}}, {"f", {{attributes(1)}, reading("x")}}},
        test::listenAt(mDirectory / "socket"));
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(runProgram(static_cast<int>(argv.size()), argv.data()), 1) << arguments[3];
    EXPECT_THAT(::testing::internal::GetCapturedStderr(),
                HasSubstr(" '" + longest + "': the path is too long\n" + end));
  }
}

}  // namespace
}  // namespace zor::client::cli
