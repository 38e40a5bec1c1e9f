// How the host ends, and what a remote that never reads can do to it.
#include "host_process.h"

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
  serve();
  expectCleanEnd(SIGINT);
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
  ASSERT_TRUE(eventually([&] { return logged("remote connected") == 1; }));
  expectCleanEnd(SIGTERM);
  EXPECT_TRUE(remote.closedByHost());
}

TEST_F(EndTest, EndsAtOnceOnASecondSignal) {
  // Threads are left behind on purpose here.
  const char* options = ::getenv("TSAN_OPTIONS");
  ::setenv("TSAN_OPTIONS", ((options ? options : "") + ":report_thread_leaks=0"s).c_str(), 1);
  serve({"--module", HOST_MODULES "late_module.so"});
  const Remote remote(mSocket);
  ASSERT_TRUE(eventually([&] { return logged("remote connected") == 1; }));
  ::kill(mPid, SIGTERM);
  ::kill(mPid, SIGINT);
  EXPECT_EQ(exitCode(), 1);
}

TEST_F(EndTest, AFloodDoesNotGrowTheHostBeyondItsBound) {
  serve();
  std::string smallest, attributes;
  for (int i = 0; i < 1000; ++i) smallest += echoRequest(1, "");
  for (int i = 0; i < 1000; ++i) attributes += kAttributes;
  const std::string medium = echoRequest(1, std::string(60000, 'x'));
  const std::string largest = echoRequest(1, std::string((64U << 20) - 24, 'x'));
  for (const std::string& piece : {smallest, medium, largest, attributes}) {
    const Remote remote(mSocket);
    ASSERT_TRUE(remote.greeted());
    flood(remote, piece);
  }
  const std::string status = slurp("/proc/" + std::to_string(mPid) + "/status");
  const int peakKiB = std::atoi(status.c_str() + status.find("VmHWM:") + 6);
  // A sanitizer's own memory is not the host's.
  EXPECT_LT(peakKiB, HOST_SANITIZED ? 8 << 20 : 256 << 10);
  expectCleanEnd(SIGTERM);
}

}  // namespace
}  // namespace host_test
