// Reading of files, and its pacing by the announced bandwidth.
#include <fcntl.h>

#include <atomic>
#include <thread>

#include "disk_fixture.h"
#include "operator/read_limiter.h"

namespace zor::test {
namespace {

class ReadTest : public DiskTest {
 protected:
  std::string read(const std::string& path, std::uint32_t size, std::int64_t offset = 0) {
    return ask(105, readOf(path, size, offset)).value().substr(24 + path.size());
  }
  void bandwidth(std::uint32_t value) { op.BusEventHandle(requestOf(513, le(value, 4))); }
};

TEST_F(ReadTest, MemoryFollowsWhatTheFileHoldsAndNotWhatWasAsked) {
  EXPECT_EQ(read("/inside.txt", ~0U), "0123456789");
  EXPECT_LT(device.capacity, 200U);
  ASSERT_TRUE(ask(123, le(1, 4) + readOf("/inside.txt", 60 << 20)));
  EXPECT_LT(device.capacity, 200U);

  put(disk + "/sparse", "begin");
  fs::resize_file(disk + "/sparse", (5LL << 30) + 3);
  const std::string most = read("/sparse", ~0U);
  EXPECT_EQ(most.size(), 32U << 20);  // no reply carries more
  EXPECT_EQ(hexOf(most.substr(0, 6)), hexTyped("'begin' 00"));
  for (const auto& [offset, count] : {std::pair{0LL, 3U}, {3LL, 0U}, {1LL << 60, 0U}}) {
    EXPECT_EQ(read("/sparse", 100, (5LL << 30) + offset), std::string(count, '\0'));
  }
}

TEST_F(ReadTest, AFileThatIsCutMeanwhileIsAnsweredWithWhatItHeld) {
  const std::string full(60000, 'x'), path = "/inside.txt";
  put(disk + path, full);
  std::atomic<bool> stop{false};
  std::thread neighbour([&] {
    const UniqueFd file(::open((disk + path).c_str(), O_WRONLY | O_CLOEXEC));
    while (!stop) {
      EXPECT_EQ(::pwrite(file.get(), full.data(), full.size(), 0), 60000);
      EXPECT_EQ(::ftruncate(file.get(), 5000), 0);
    }
  });
  bool cut = false;
  for (int round = 0; round < 100 || (!cut && round < 20000); ++round) {
    const std::string reply = ask(105, readOf(path, 60000)).value();
    const std::string contents = reply.substr(24 + path.size());
    EXPECT_EQ(contents.find_first_not_of(std::string("x\0", 2)), std::string::npos);
    EXPECT_EQ(reply.substr(12, 4), le(contents.size(), 4));
    cut = cut || contents.size() < full.size();
  }
  stop = true;
  neighbour.join();
}

TEST_F(ReadTest, FailuresAreReportedForThePathsThatAreTraced) {
  device.pathTable->Add("/t*");
  put(disk + "/t", "traced");
  std::istringstream reads("/t 0  /t 6  /spare 0  /tmissing 0  /missing 0  /t -1");
  for (auto [path, offset] = std::pair<std::string, int>(); reads >> path >> offset;)
    read(path, 10, offset);
  const std::string ok = "LOCAL_UDISK_READ_FILE_SUCCESS success /t udisk readFile success";
  const std::string bad = "LOCAL_UDISK_READ_FILE_FAIL error /t";
  EXPECT_EQ(device.traces(), (std::vector{ok, ok, bad + "missing udisk readFile fail",
                                          bad + " udisk readFile fail"}));
  EXPECT_EQ(device.readFailures, (std::vector<std::string>{"/tmissing", "/t"}));
  EXPECT_EQ(log.errors("file_read failed res: -1, \\n"), 3U);
  device.pathTable.reset();
  EXPECT_EQ(read("/t", 3), "tra");
}

TEST_F(ReadTest, TheLimiterCountsInWholePeriods) {
  // The product of the last two wraps at 32 bits.
  std::istringstream periods(
      "1000 500 64000  1007 500 64000  1008 500 64512  10240 500 655360  10241 50 65536 "
      "10248 50 65587  100000 50 640000  33554440 50 51  4294967295 50 214748313");
  for (std::uint32_t kbit, length, budget; periods >> kbit >> length >> budget;) {
    EXPECT_EQ(ratePeriod(kbit).lengthMs, length) << kbit;
    EXPECT_EQ(ratePeriod(kbit).budget, budget) << kbit;
  }
  std::istringstream pauses(
      "63999 0 0  64000 0 500  64000 3 497  99999 499 1  64000 500 0  64000 9000 0");
  for (std::uint32_t window, overrun, pause; pauses >> window >> overrun >> pause;) {
    EXPECT_EQ(ratePause({500, 64000}, window, overrun), pause);
  }
  std::istringstream overruns("0 0  500 0  507 7  -5 0");
  for (int elapsed, overrun; overruns >> elapsed >> overrun;) {
    EXPECT_EQ(rateOverrun({500, 64000}, elapsed), overrun);
  }
}

TEST_F(ReadTest, AnnouncementsAreStoredWithTheirFloorAndReportedNowAndThen) {
  std::istringstream rows(
      "1 1000  999 1000  1000 1000  1001 1001  0 0  4294967295 4294967295  5000 5000");
  for (std::uint32_t announced, stored; rows >> announced >> stored;) {
    bandwidth(announced);
    EXPECT_EQ(Peek::bandwidth(op), stored);
  }
  op.BusEventHandle(requestOf(512, le(7000, 4)));
  op.BusEventHandle(requestOf(513, "abc"));
  EXPECT_EQ(Peek::bandwidth(op), 5000U);
  op.BusEventHandle(packetOf(wire("27090201 00000001 00000014 01000000 00001770")));  // big-endian
  EXPECT_EQ(Peek::bandwidth(op), 6000U);
  // The first was reported; another that differs from what is stored is after five seconds.
  for (const auto& [value, ago] :
       {std::pair{7000U, 4000}, {7000U, 6000}, {500U, 6000}, {500U, 6000}}) {
    Peek::bandwidthTraceTime(op) = getCurrentTime() - ago;
    bandwidth(value);
  }
  const std::string event = "LOCAL_UDISK_READ_BW_INFO success - Udisk read bwinfo:";
  EXPECT_EQ(device.traces(), (std::vector{event + "1", event + "500", event + "500"}));
}

TEST_F(ReadTest, AReadThatFillsItsPeriodWaitsUntilItIsOver) {
  bandwidth(10241);  // 65536 bytes in 50 ms
  read("/inside.txt", 65535);
  EXPECT_EQ(Peek::windowBytes(op), 65535U);
  const std::int64_t started = getCurrentTime();
  EXPECT_EQ(read("/inside.txt", 1), "0");
  EXPECT_GE(getCurrentTime() - started, 49);
  EXPECT_EQ(Peek::windowBytes(op), 1U);  // it opens the next period
  // A batch counts what was asked, header included, and leaves an empty period.
  for (const auto& [size, window] : {std::pair{65534U - 46, 65535U}, {0U, 0U}}) {
    ask(123, le(1, 4) + readOf("/spare", size));
    EXPECT_EQ(Peek::windowBytes(op), window);
  }
  EXPECT_EQ(log.all("start limit udisk write ... start time =").size(), 4U);
  // What was announced long ago limits nothing.
  Peek::bandwidthTime(op) = getCurrentTime() - 5001;
  read("/inside.txt", 1 << 20);
  EXPECT_EQ(Peek::bandwidth(op), 0U);
  EXPECT_EQ(log.all("start limit").size(), 4U);
}

// Shifting what was noted before is the same as setting the clock.
TEST_F(ReadTest, AClockThatIsSetProlongsNeitherALimitNorTheSilenceOfReports) {
  constexpr std::int64_t kHour = 3'600'000;
  for (const auto& [setBack, limit, event] : {std::tuple{kHour, 1000U, 0U}, {-kHour, 0U, 1U}}) {
    bandwidth(1000);
    const std::size_t before = device.traces().size();
    Peek::bandwidthTime(op) += setBack;
    Peek::bandwidthTraceTime(op) = getCurrentTime() + setBack;
    read("/inside.txt", 1);
    EXPECT_EQ(Peek::bandwidth(op), limit);
    Peek::bandwidthTime(op) -= 5001;  // so much later
    read("/inside.txt", 1);
    EXPECT_EQ(Peek::bandwidth(op), 0U);
    bandwidth(2000);
    EXPECT_EQ(device.traces().size(), before + event);
    Peek::bandwidthTraceTime(op) -= 5001;
    bandwidth(3000);
    EXPECT_EQ(device.traces().size(), before + event + 1);
  }
}

}  // namespace
}  // namespace zor::test
