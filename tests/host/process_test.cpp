#include <sys/resource.h>
#include <sys/stat.h>

#include "host_process.h"
#include "support/unique_fd.h"

namespace host_test {
namespace {

namespace fs = std::filesystem;

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

TEST_F(HostTest, AnnouncesAndServesTheDirectoryWhateverItsName) {
  const std::string name = "dis\"k \xe9\\";
  std::filesystem::create_directory(mDirectory + "/disk/" + name);
  std::ofstream(mDirectory + "/disk/" + name + "/f") << "contents";
  launch({"serve", mDirectory + "/disk/./" + name + "/", "--socket", mSocket, "--read-only",
          "--trace-file", mDirectory + "/trace", "--trace-path", "*.none", "--trace-path", "/f*"});
  ASSERT_TRUE(eventually([&] { return logged("serving") == 1; }));
  {
    const Remote remote(mSocket);
    EXPECT_EQ(remote.receive(), request(122, 6666, ""));
    EXPECT_EQ(remote.receive(), request(100, 1234, le(name.size(), 2) + name + "\0\1"s));
    remote.send(readRequest(7, "/f", 100) + readRequest(8, "/g", 100));
    EXPECT_EQ(remote.receive(),
              request(105, 7, le(0, 12) + le(8, 4) + le(2, 4) + le(0, 4) + "/fcontents"));
    EXPECT_EQ(remote.receive(), readRequest(8, "/g", 0));
    const std::string bigEndian = "\x27\1\0\x77\0\0\0\5\0\0\0\x1a\1\0\0\0\2\0\0\0\0\0\0\0/f"s;
    remote.send(bigEndian);
    EXPECT_EQ(remote.receiveBytes(bigEndian.size()), bigEndian);
  }
  ASSERT_TRUE(eventually([&] { return logged("client left") == 1; }));
  ::kill(mPid, SIGTERM);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_THAT(slurp(mDirectory + "/trace"),
              MatchesRegex("[^\n]*DRIVER_OPEN[^\n]*\n[^\n]*\"/f\"[^\n]*READ_FILE_SUCCESS[^\n]*\n"
                           "[^\n]*DRIVER_CLOSE[^\n]*\n"));
}

TEST_F(HostTest, DeliversNothingBeforeTheAnnouncementAndBusEventsApart) {
  serve({"--module", HOST_MODULES "late_module.so"});
  const Remote remote(mSocket);
  remote.send(request(102, 1, "") + request(513, 2, "") + request(512, 3, "") +
              request(511, 4, ""));
  for (const std::string& expected :
       {request(100, 1234, "A"), request(102, 1, "E"), request(513, 2, "B"), request(512, 3, "B"),
        request(511, 4, "E")}) {
    EXPECT_EQ(remote.receive(), expected);
  }
}

TEST_F(HostTest, EndsAMalformedConnectionWithOneLine) {
  serve();
  const struct {
    std::string bytes, line;
  } table[] = {{"GET / HTTP/1.1\r\n", "began with 0x47"},
               {"\x27\1\0\x66\0\0\0\1\xff\xff\xff\xff\1\0\0\0"s, "a length of 4294967295 bytes"}};
  for (const auto& row : table) {
    const Remote remote(mSocket);
    ASSERT_TRUE(remote.greeted());
    remote.send(row.bytes);
    EXPECT_TRUE(remote.closedByHost());
    EXPECT_TRUE(eventually([&] { return logged(row.line) == 1; }));
  }
  EXPECT_EQ(logged("the client left") + logged("has ended"), 0);
}

TEST_F(HostTest, ServesWhatWasSentBeforeTheRemoteClosedItsSide) {
  serve();
  const Remote remote(mSocket);
  std::string requests;
  for (std::uint32_t i = 0; i < 3000; ++i) requests += echoRequest(i, "/some/path");
  remote.send(requests);
  ::shutdown(remote.fd, SHUT_WR);
  ASSERT_TRUE(remote.greeted());
  EXPECT_EQ(remote.receiveBytes(requests.size()), requests);
  EXPECT_TRUE(remote.closedByHost());
}

TEST_F(HostTest, SaysWhatIsWrongWithItsCommandLine) {
  const std::string disk = mDirectory + "/disk";
  std::ofstream(mDirectory + "/file");
  const struct {
    std::vector<std::string> arguments;
    int exitCode;
    std::string message;
  } table[] = {{{}, 2, "subcommand"},
               {{"--help"}, 0, ""},
               {{"serve", disk}, 2, "--socket"},
               {{"serve", disk, "--socket", mSocket, "--log-level", "loud"}, 2, "loud"},
               {{"serve", disk, "--socket", mSocket, "--max-clients", "9"}, 2, "9 not in range"},
               {{"serve", disk, "--socket", mSocket, "--user", "nobody here"}, 1, "no user"},
               {{"serve", mDirectory + "/none", "--socket", mSocket}, 1, "No such file"},
               {{"serve", mDirectory + "/file", "--socket", mSocket}, 1, "not a directory"},
               {{"serve", disk, "--socket", mDirectory + "/file"}, 1, "not a socket"},
               {{"serve", disk, "--socket", mSocket, "--name", std::string(256, 'n')}, 1, "255"},
               {{"serve", disk, "--socket", mSocket, "--trace-file", "/none/t"}, 1, "/none/t"},
               {{"serve", disk, "--socket", mSocket, "--module", mDirectory + "/file"},
                1,
                "not a usable driver module"}};
  for (const auto& row : table) {
    std::filesystem::remove(mLog);
    launch(row.arguments);
    EXPECT_EQ(exitCode(), row.exitCode) << row.message;
    EXPECT_THAT(slurp(mLog), HasSubstr(row.message));
  }
  mPid = zor::test::spawn({HOST_PROGRAM, "--help"}, "/dev/full", mLog);
  EXPECT_EQ(exitCode(), 1);
  EXPECT_EQ(logged("cannot write to standard output: No space left on device"), 1);
}

TEST_F(HostTest, OutlivesAModuleThatOpensNothing) {
  serve({"--module", HOST_MODULES "opens_nothing.so"});
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(Remote(mSocket).closedByHost());
  EXPECT_TRUE(logs("could not open a driver", 3));
}

// None is the same as the one before.
TEST_F(HostTest, LogsAFloodOfFailuresInPart) {
  serve();
  const Remote remote(mSocket);
  ASSERT_TRUE(remote.greeted());
  std::string requests;
  const std::string last = echoRequest(1, "/x");
  for (std::uint32_t i = 0; i < 5000; ++i) requests += request(105, i, std::string(1 + i % 7, 'x'));
  remote.send(requests + last);
  EXPECT_EQ(remote.receive(), last);
  ::kill(mPid, SIGTERM);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_THAT(logged("ZOR_LOG"), ::testing::AllOf(::testing::Ge(100), ::testing::Le(1000)));
  EXPECT_GE(logged("more lines like: [ZOR_LOG]"), 1);
}

TEST_F(HostTest, AFileThatMayNotGrowIsAFailedRequestAndNotTheEnd) {
  std::ofstream(mDirectory + "/disk/f") << "old";
  serve();
  const rlimit small{50000, 50000};
  ASSERT_EQ(::prlimit(mPid, RLIMIT_FSIZE, &small, nullptr), 0);
  const Remote remote(mSocket);
  ASSERT_TRUE(remote.greeted());
  const auto write = [](std::uint64_t offset, unsigned taken, const std::string& data) {
    const std::string fixed = le(offset, 8) + le(taken, 4) + le(0, 4) + le(1, 4) + le(2, 4);
    return request(106, 1, fixed + "/f" + data);
  };
  const auto truncate = [](std::uint32_t result) {
    return request(109, 2, le(60000, 8) + le(2, 4) + le(result, 4) + "/f");
  };
  remote.send(write(50000, 4, "more") + write(49998, 4, "more") + truncate(0) + write(0, 3, "new"));
  EXPECT_EQ(remote.receive(), write(50000, 0, ""));
  EXPECT_EQ(remote.receive(), write(49998, 0, ""));  // only a part of it fits
  EXPECT_EQ(remote.receive(), truncate(0xffffffff));
  EXPECT_EQ(remote.receive(), write(0, 3, ""));
}

}  // namespace
}  // namespace host_test
