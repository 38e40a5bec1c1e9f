// A running udisk-host and remotes of the tests' own, which speak in bytes.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace host_test {

using namespace std::string_literals;
using namespace std::chrono_literals;

/// Waits until `condition` holds, for at most ten seconds.
template <class Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

inline std::string slurp(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// `value` as `size` little-endian bytes.
inline std::string le(std::uint64_t value, int size) {
  std::string bytes;
  for (; size > 0; --size, value >>= 8) bytes += static_cast<char>(value);
  return bytes;
}

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
  std::string receiveBytes(std::size_t size) const {
    std::string bytes(size, '\0');
    const ssize_t got = ::recv(fd, bytes.data(), size, MSG_WAITALL);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
  }
  /// The next packet, or what there was of it when the stream ended.
  std::string receive() const {
    std::string packet = receiveBytes(16);
    if (packet.size() < 16) return packet;
    std::uint32_t length = 0;
    std::memcpy(&length, packet.data() + 8, 4);
    if (packet[12] != 0) length = __builtin_bswap32(length);
    return packet + receiveBytes(length - 16);
  }
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
  HostTest() : mDirectory(::testing::TempDir() + "host.XXXXXX") {
    EXPECT_NE(::mkdtemp(mDirectory.data()), nullptr);
    std::filesystem::create_directory(mDirectory + "/disk");
    mSocket = mDirectory + "/socket";
    mLog = mDirectory + "/log";
  }
  ~HostTest() override {
    if (mPid > 0) {
      ::kill(mPid, SIGKILL);
      ::waitpid(mPid, nullptr, 0);
    }
    if (HasFailure()) std::fprintf(stderr, "the host's log:\n%s", slurp(mLog).c_str());
    std::filesystem::remove_all(mDirectory);
  }

  /// Runs the host with its standard error in mLog.
  void launch(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), HOST_PROGRAM);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    mPid = ::fork();
    if (mPid != 0) return;
    ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    ::dup2(::open(mLog.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
    ::execv(HOST_PROGRAM, argv.data());
    ::_exit(127);
  }
  /// Serves mDirectory/disk and waits until it is ready.
  void serve(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"serve", mDirectory + "/disk", "--socket", mSocket};
    arguments.insert(arguments.end(), more.begin(), more.end());
    launch(arguments);
    ASSERT_TRUE(eventually([&] { return logged("serving") == 1; }));
  }
  int exitCode() {
    int status = 0;
    ::waitpid(mPid, &status, 0);
    mPid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  /// How many lines of the log contain `text`.
  int logged(const std::string& text) const {
    std::istringstream log(slurp(mLog));
    int count = 0;
    for (std::string line; std::getline(log, line);) count += line.find(text) != std::string::npos;
    return count;
  }

  std::string mDirectory, mSocket, mLog;
  pid_t mPid = -1;
};

}  // namespace host_test
