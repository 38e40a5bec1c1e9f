// A running udisk-host and remotes of the tests' own, which speak in bytes.
#pragma once

#include <gmock/gmock.h>

#include <cstring>
#include <utility>

#include "driver/wire_text.h"
#include "support/host_packets.h"
#include "support/process.h"
#include "support/temporary_directory.h"

namespace host_test {

using namespace std::string_literals;
using namespace std::chrono_literals;

namespace client = zor::client::test;
using zor::test::eventually;
using zor::test::le;

inline std::string slurp(const std::string& path) { return client::readFile(path); }

inline std::string request(unsigned cmd, std::uint32_t id, const std::string& payload) {
  return "\x27\x01"s + le(cmd, 2) + le(id, 4) + le(16 + payload.size(), 4) + "\0\0\0\0"s + payload;
}

inline std::string readRequest(std::uint32_t id, const std::string& path, std::uint32_t size) {
  return request(105, id, le(0, 12) + le(size, 4) + le(path.size(), 4) + le(0, 4) + path);
}

/// A flush: answered with a copy of itself.
inline std::string echoRequest(std::uint32_t id, const std::string& path) {
  return request(119, id, le(path.size(), 4) + le(0, 4) + path);
}

struct Remote {
  explicit Remote(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    const timeval patience{20, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~Remote() { ::close(fd); }
  Remote(const Remote&) = delete;
  Remote& operator=(const Remote&) = delete;

  bool send(const std::string& bytes) const {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  std::string receiveBytes(std::size_t size) const { return client::takeBytes(fd, size); }
  /// The next packet, or what there was of it when the stream ended.
  std::string receive() const { return client::takePacket(fd).bytes; }
  bool closedByHost() const {
    char byte;
    const ssize_t got = ::recv(fd, &byte, 1, 0);
    return got == 0 || (got < 0 && errno == ECONNRESET);
  }
  /// Takes the small-file notice and the announcement; false when something
  /// else, or nothing, came.
  bool greeted() const {
    return receive() == request(122, 6666, "") &&
           receive().substr(0, 8) == request(100, 1234, "").substr(0, 8);
  }

  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bool connected = false;
};

class HostTest : public ::testing::Test {
 protected:
  HostTest() { std::filesystem::create_directory(mDirectory + "/disk"); }
  ~HostTest() override {
    if (mPid > 0 && ::kill(mPid, SIGTERM) == 0) exitCode();
    if (HasFailure()) std::fprintf(stderr, "the host's log:\n%s", slurp(mLog).c_str());
  }

  /// Runs the host with its standard error in mLog.
  void launch(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), HOST_PROGRAM);
    mPid = zor::test::spawn(arguments, "/dev/null", mLog);
  }
  /// Serves mDirectory/disk and waits until it is ready.
  void serve(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"serve", mDirectory + "/disk", "--socket", mSocket};
    arguments.insert(arguments.end(), more.begin(), more.end());
    launch(arguments);
    ASSERT_TRUE(eventually([&] { return logged("serving") == 1; }));
  }
  int exitCode() { return zor::test::waitFor(std::exchange(mPid, -1)); }
  /// How many lines of the log contain `text`.
  int logged(const std::string& text) const {
    std::istringstream log(slurp(mLog));
    int count = 0;
    for (std::string line; std::getline(log, line);) count += line.find(text) != std::string::npos;
    return count;
  }
  /// The same for a host that runs: its lines are written behind what they tell of.
  bool logs(const std::string& text, int count) const {
    return eventually([&] { return logged(text) == count; });
  }

  const client::TemporaryDirectory mHome;
  const std::string mDirectory = mHome.path(), mSocket = mDirectory + "/socket",
                    mLog = mDirectory + "/log";
  pid_t mPid = -1;
};

}  // namespace host_test
