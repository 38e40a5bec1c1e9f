#include "host/log_sink.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <spdlog/logger.h>
#include <unistd.h>

#include <sstream>

#include "support/unique_fd.h"

namespace zor::host {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

TEST(LogLimit, CountsWhatItLeavesOutOfEachMessage) {
  std::vector<std::string> reports;
  LogLimit limit;
  limit.write = [&](const std::string& line) { reports.push_back(line); };
  LogLimit::Time now{1h};
  const auto passed = [&](const std::string& line, int count) {
    int admitted = 0;
    for (int i = 0; i < count; ++i) admitted += limit.admits(line + std::to_string(i), now);
    return admitted;
  };
  const std::string site = R"([ZOR_LOG] a.cpp read(12): "Error:" "path )";
  EXPECT_EQ(passed(site, 150), 100);
  EXPECT_EQ(passed(R"([ZOR_LOG] a.cpp read(13): "Error:" "path )", 50), 50);
  EXPECT_EQ(passed("refused a remote: process ", 103), 100);
  EXPECT_TRUE(limit.isPending() && reports.empty());
  now += LogLimit::kPeriod;
  EXPECT_EQ(passed(site, 1), 1);
  EXPECT_FALSE(limit.isPending());
  EXPECT_THAT(reports, ElementsAre("left out 50 more lines like: [ZOR_LOG] a.cpp read(12)",
                                   "left out 3 more lines like: refused a remote: process "));
  // Whoever makes up messages does not get around it.
  int admitted = 0;
  for (std::size_t i = 0; i < 1000; ++i) admitted += limit.admits(std::string(1 + i, 'x'), now);
  EXPECT_LE(admitted, 300);
}

class LogSinkTest : public ::testing::Test {
 protected:
  LogSinkTest() {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    mReader = UniqueFd(ends[0]);
    mWriter = UniqueFd(ends[1]);
    // Its thread may hang in a write for ever, so it is never destroyed.
    static auto* const all = new std::vector<std::shared_ptr<LogSink>>();
    mSink = all->emplace_back(std::make_shared<LogSink>(mWriter.release()));
    mLogger = std::make_unique<spdlog::logger>("udisk-host", mSink);
    mLogger->set_level(spdlog::level::trace);
  }
  std::string readAvailable() const {
    ::fcntl(mReader.get(), F_SETFL, O_NONBLOCK);
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = ::read(mReader.get(), buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<std::size_t>(count));
    }
    return text;
  }

  UniqueFd mReader, mWriter;
  std::shared_ptr<LogSink> mSink;
  std::unique_ptr<spdlog::logger> mLogger;
};

TEST_F(LogSinkTest, NobodyWhoLogsWaitsForTheReader) {
  constexpr int kLines = 50000;
  mLogger->info("before the thread");
  mSink->startThread();
  for (int i = 0; i < kLines; ++i) mLogger->debug("line {} {}", i, std::string(100, 'x'));
  mSink->stopThread();  // nobody reads: it gives up
  EXPECT_THAT(readAvailable(), ::testing::HasSubstr("before the thread"));
  mLogger->info("afterwards");
}

TEST_F(LogSinkTest, EveryLineIsWrittenOrCounted) {
  constexpr int kLines = 50000;
  mSink->startThread();
  for (int i = 0; i < kLines; ++i) mLogger->debug("line {} {}", i, std::string(100, 'x'));
  std::string text;
  int lines = 0;
  int lost = 0;
  pollfd more{mReader.get(), POLLIN, 0};
  while (lines + lost < kLines && ::poll(&more, 1, 20000) == 1) {
    text += readAvailable();
    const std::size_t end = text.rfind('\n') + 1;
    std::istringstream all(text.substr(0, end));
    text.erase(0, end);
    for (std::string line; std::getline(all, line);) {
      lines += line.find("] line ") != line.npos;
      const std::size_t notice = line.find(" lines were left out");
      if (notice != line.npos) lost += std::stoi(line.substr(line.rfind(' ', notice - 1)));
    }
  }
  EXPECT_GT(lost, 0);
  EXPECT_EQ(lines + lost, kLines);
  mSink->stopThread();
}

}  // namespace
}  // namespace zor::host
