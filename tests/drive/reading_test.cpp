// Reading ahead, batches of small files, and how much of both is in flight.
#include <gtest/gtest.h>

#include <deque>
#include <future>

#include "drive/read_ahead.h"
#include "drive/small_files.h"
#include "protocol/records.h"

namespace zor::client::test {
using namespace std::chrono_literals;

constexpr std::uint32_t kRead = 128U << 10;

static std::string str(auto b) { return {reinterpret_cast<const char*>(b.data()), b.size()}; }

/// Every file has the same contents; answers may overtake each other.
struct ReadingTest : testing::Test, Transport, FileRequests {
  void submit(OutgoingRequest request, Completion done) override {
    if (request.data) request.payload.append(request.data->bytes());
    wire::Cursor in(request.payload.bytes());
    std::string out = str(in.take(request.command == wire::Command::kFileRead ? 0 : 4));
    const std::lock_guard lock(mutex);
    for (wire::FileReadRecord record{}; !in.rest().empty() && in.get(record);) {
      requested += record.size;
      std::string data = str(in.take(record.pathLength));
      data += file.substr(std::min(file.size(), std::size_t(record.offset)), record.size);
      record.size = std::uint32_t(data.size()) - record.pathLength;
      out += str(wire::encoded(record)) + data;
    }
    answers.push_back(std::async(std::launch::async, [out, done, lost = ++requests > answered] {
      lost ? done(Error{ErrorKind::kLinkLost, ""}) : done(Buffer(out));
    }));
  }
  void submitFenced(OutgoingRequest, Completion, OutgoingRequest) override {}
  void post(std::function<void()>) override {}
  void read(std::int64_t offset, std::uint32_t size, Callback<FileData> done) override {
    disk.read("/f", offset, size, std::move(done));
  }
  std::string text(std::initializer_list<std::uint32_t> offsets, std::uint32_t size = kRead) {
    std::string all;
    for (const std::uint32_t offset : offsets) {
      const auto parts = ahead.read(offset, size, 40 * kRead);
      for (const auto& part : parts ? *parts : ReadParts{}) all += str(part.bytes);
      if (!parts) all += "errno " + std::to_string(parts.error().value);
    }
    return all;
  }
  void set(std::string contents, std::uint64_t requestsAnswered = 1U << 30) {
    const std::lock_guard lock(mutex);
    file = std::move(contents);
    requested = requests = 0, answered = requestsAnswered;
  }
  std::mutex mutex;
  std::string file;
  std::uint64_t answered = 0, requested = 0, requests = 0;
  ReadWindow window;
  ReadCounters counters;
  Disk disk{*this};
  std::vector<std::future<void>> answers;
  ReadAhead ahead{std::shared_ptr<ReadingTest>(std::shared_ptr<void>(), this), window, counters};
};

TEST_F(ReadingTest, AsksForEachByteOnceAndReportsOnlyPresentFailures) {
  std::string all;
  for (int i = 10'000'000; all.size() < 40 * kRead; ++i) all += std::to_string(i);
  for (const std::uint32_t size : {4096U, kRead}) {
    set(all);
    for (std::uint32_t i = 0; i < 40; ++i) {
      const std::uint32_t at = (size == kRead ? i ^ 1 : i * 27 % 40) * kRead;
      ASSERT_EQ(text({at}, size), all.substr(at, size)) << i;
    }
    EXPECT_TRUE(requested == 40 * size && (requests < 30) == (size == kRead)) << requests;
  }
  set(std::string(3 * kRead, 'a'), 1);
  EXPECT_EQ(text({0, kRead}), std::string(kRead, 'a') + "errno 5");
  set(std::string(3 * kRead, 'a'));
  EXPECT_EQ(text({kRead, 2 * kRead}), std::string(2 * kRead, 'a'));
  set(std::string(3 * kRead + 4, 'b'));
  ahead.drop();
  EXPECT_EQ(text({3 * kRead, 4 * kRead}), "bbbberrno 5");
}

TEST_F(ReadingTest, FetchesATreeOfSmallFilesWithAboutOneBatchPerDirectory) {
  for (const std::uint64_t step : {1U, 37U}) {  // 37: programs that sort by inode number
    SmallFiles small(disk, window, counters);
    set(std::string(4096, 'x'));
    const auto items = std::make_shared<std::vector<DirectoryItem>>(100);
    for (std::uint64_t i = 0, at = 0; i < 100; ++i, at = i * step % 100)
      (*items)[at] = {std::to_string(at + 100),
                      {0, i, 1, 4096, 0, 8, 0, {}, {}, {}, 0100644, 0, 0, 0}};
    for (std::uint64_t i = 0; i < 2010; ++i) {  // of the last ten directories only one file
      const std::string path = "/d" + std::to_string(i < 2000 ? i / 100 : i);
      DirectoryItem item = (*items)[i * step % 100 * (i < 2000)];
      if (i == 350) ++item.attributes.st_ctim.tv_nsec;
      if (i == 450) small.forget("/d4"), file[0] = 'y';
      const auto found = small.get(path, items, item.name, item.attributes);
      EXPECT_TRUE(found ? str(found->contents) == file && i != 350 : ++requests) << i;
    }
    EXPECT_LE(requests, 40U) << step;
  }
}

TEST(ReadWindowTest, FillsALinkAndKeepsItsQueueShort) {
  // Bytes per microsecond, and the seconds' worth that may be in flight; the delay is 40 ms.
  for (const auto& [rate, longest] : {std::pair{0.125, 1.04}, {10, 0.2}, {100, 0.09}}) {
    ReadWindow window;
    std::deque<std::pair<ReadWindow::Time, ReadWindow::Ticket>> flying;
    ReadWindow::Time now{}, idle{};
    double bytes = 0;
    for (; now.time_since_epoch() < 30s; flying.pop_front()) {
      while (const auto ticket = window.tryBegin(window.chunkSize(), now))
        flying.emplace_back(idle = std::max(idle, now) + 1us * int(ticket->bytes / rate), *ticket);
      now = flying.front().first + 40ms;
      bytes += flying.front().second.bytes;
      window.finished(flying.front().second, flying.front().second.bytes, now);
    }
    EXPECT_TRUE(bytes > 27e6 * rate && double(window.size()) < longest * rate * 1e6) << rate;
  }
}
}  // namespace zor::client::test
