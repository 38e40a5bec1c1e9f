// How the host ends, and what a remote that never reads can do to it.
#include <sys/stat.h>

#include <memory>

#include "host_process.h"
#include "support/unique_fd.h"

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define HOST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HOST_SANITIZED 1
#endif
#endif
#ifndef HOST_SANITIZED
#define HOST_SANITIZED 0
#endif

namespace host_test {
namespace {

// Sends `piece` over and over until the host has stopped reading for a while.
void flood(const Remote& remote, const std::string& piece) {
  const timeval patience{1, 0};
  ::setsockopt(remote.fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  while (remote.send(piece)) {
  }
}

class EndTest : public HostTest {
 protected:
  void expectCleanEnd(int signal) {
    const auto start = std::chrono::steady_clock::now();
    ::kill(mPid, signal);
    EXPECT_EQ(exitCode(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, HOST_SANITIZED ? 3s : 1s);
    EXPECT_FALSE(std::filesystem::exists(mSocket));
    std::filesystem::remove(mLog);
  }
};

const std::string kAttributes = request(102, 1, le(1, 2) + le(0, 2) + "/");

TEST_F(EndTest, EndsWithinASecondWhateverIsGoingOn) {
  std::ofstream(mDirectory + "/disk/f") << std::string(200000, 'x');
  std::string paced = request(513, 1, le(1000, 4));
  for (std::uint32_t i = 0; i < 50; ++i) paced += readRequest(i, "/f", 64000);
  for (const int signal : {SIGINT, SIGHUP}) {
    serve();
    expectCleanEnd(signal);
  }
  for (const std::string& requests : {""s, paced, kAttributes}) {
    serve();
    const Remote remote(mSocket);
    ASSERT_TRUE(remote.greeted());
    remote.send(requests);
    if (requests == kAttributes) flood(remote, kAttributes);
    EXPECT_TRUE(requests != paced || remote.receive().size() == 42 + 64000);  // the next one sleeps
    expectCleanEnd(SIGTERM);
  }
  serve({"--module", HOST_MODULES "silent_module.so"});
  const Remote remote(mSocket);
  ASSERT_TRUE(eventually([&] { return logged("client connected") == 1; }));
  expectCleanEnd(SIGTERM);
  EXPECT_TRUE(remote.closedByHost());
}

TEST_F(EndTest, EndsAtOnceOnASecondSignal) {
  // Threads are left behind on purpose here.
  const char* options = ::getenv("TSAN_OPTIONS");
  ::setenv("TSAN_OPTIONS", ((options ? options : "") + ":report_thread_leaks=0"s).c_str(), 1);
  serve({"--module", HOST_MODULES "late_module.so"});
  const Remote remote(mSocket);
  ASSERT_TRUE(eventually([&] { return logged("client connected") == 1; }));
  ::kill(mPid, SIGTERM);
  ::kill(mPid, SIGINT);
  EXPECT_EQ(exitCode(), 1);
}

TEST_F(EndTest, TellsWhatItServedAndIsNotEndedByTheOtherSignals) {
  serve();
  ::kill(mPid, SIGUSR2);
  const Remote remote(mSocket);
  ASSERT_TRUE(remote.greeted());
  remote.send(echoRequest(1, "/x") + echoRequest(2, "/y"));
  EXPECT_EQ(remote.receiveBytes(52), echoRequest(1, "/x") + echoRequest(2, "/y"));
  ::kill(mPid, SIGUSR1);
  EXPECT_TRUE(eventually([&] {
    return logged("served 1 clients, 2 requests, 52 bytes received") == 1 &&
           logged("connected: process " + std::to_string(::getpid())) == 1;
  }));
  expectCleanEnd(SIGTERM);
}

// The log is a pipe that is full.
TEST_F(EndTest, EndsThoughNobodyReadsItsLog) {
  ASSERT_EQ(::mkfifo(mLog.c_str(), 0600), 0);
  const zor::UniqueFd log(::open(mLog.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  launch({"serve", mDirectory + "/disk", "--socket", mSocket});
  std::string text(4096, '\n');
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(mSocket); }));
  while (::write(log.get(), text.data(), text.size()) > 0) {
  }
  while (::write(log.get(), text.data(), 1) > 0) {
  }
  std::vector<std::unique_ptr<Remote>> remotes;  // more than signals, which interrupt a line each
  for (int i = 0; i < 12; ++i) remotes.push_back(std::make_unique<Remote>(mSocket));
  for (int i = 0; i < 2; ++i) {
    std::this_thread::sleep_for(50ms);
    ::kill(mPid, SIGTERM);
  }
  bool over = false;
  EXPECT_TRUE(eventually([&] { return over = over || ::waitpid(mPid, nullptr, WNOHANG) == mPid; }));
  if (over) {
    mPid = -1;
  } else {
    ::kill(mPid, SIGKILL);
  }
}

TEST_F(EndTest, FloodsDoNotGrowTheHostBeyondItsBound) {
  serve();
  std::string smallest, attributes;
  for (int i = 0; i < 1000; ++i) smallest += echoRequest(1, "");
  for (int i = 0; i < 1000; ++i) attributes += kAttributes;
  const std::string medium = echoRequest(1, std::string(60000, 'x'));
  const std::string largest = echoRequest(1, std::string((64U << 20) - 24, 'x'));
  std::vector<std::unique_ptr<Remote>> remotes;
  const std::string reads = readRequest(1, "/big", 32U << 20);
  std::ofstream(mDirectory + "/disk/big");
  std::filesystem::resize_file(mDirectory + "/disk/big", 64U << 20);
  for (const auto& piece :
       {largest, reads, smallest, medium, largest, attributes, reads, largest}) {
    remotes.push_back(std::make_unique<Remote>(mSocket));
    ASSERT_TRUE(remotes.back()->greeted());
    flood(*remotes.back(), piece);
  }
  remotes.clear();
  const std::string status = slurp("/proc/" + std::to_string(mPid) + "/status");
  const int peakKiB = std::atoi(status.c_str() + status.find("VmHWM:") + 6);
  // A sanitizer's own memory is not the host's.
  EXPECT_LT(peakKiB, HOST_SANITIZED ? 8 << 20 : 256 << 10);
  expectCleanEnd(SIGTERM);
}

}  // namespace
}  // namespace host_test
