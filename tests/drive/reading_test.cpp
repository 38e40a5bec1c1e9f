// Readahead, batches of small files, and how much of both is in flight.
#include <gtest/gtest.h>

#include <deque>
#include <future>

#include "drive/data/read_ahead.h"
#include "drive/data/small_files.h"
#include "protocol/records.h"

namespace zor::client::test {
namespace {

using namespace std::chrono_literals;

std::string text(wire::Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// A host on which every file has the same contents. Replies may overtake each other.
class OneFileHost : public Transport {
 public:
  std::string contents;
  unsigned answered = 1U << 30;  ///< requests; the link is lost behind them
  unsigned requests = 0;
  std::uint64_t bytesRequested = 0;

  void submit(OutgoingRequest request, Completion done) override {
    if (request.data) request.payload.append(request.data->bytes());
    wire::Cursor cursor(request.payload.bytes());
    const bool isBatch = request.command != Command::kFileRead;
    Buffer reply(cursor.take(isBatch ? wire::wireSize<wire::SmallFileRecord>() : 0));
    const std::lock_guard lock(mMutex);
    wire::FileReadRecord record{};
    while (!cursor.rest().empty() && cursor.get(record)) {
      const wire::Bytes path = cursor.take(record.pathLength);
      bytesRequested += record.size;
      const std::size_t at = std::min(contents.size(), static_cast<std::size_t>(record.offset));
      const std::string part = contents.substr(at, record.size);
      record.size = static_cast<std::uint32_t>(part.size());
      reply.append(wire::encoded(record));
      reply.append(path);
      reply.append(std::as_bytes(std::span(part)));
    }
    const bool lost = ++requests > answered;
    mReplies.push_back(std::async(
        std::launch::async, [lost, done = std::move(done), reply = std::move(reply)]() mutable {
          done(lost ? Result<ReplyPayload>(Error{ErrorKind::kLinkLost, ""}) : std::move(reply));
        }));
  }
  void submitFenced(OutgoingRequest, Completion, OutgoingRequest) override {}
  void post(std::function<void()>) override {}

 private:
  using Command = wire::Command;
  std::mutex mMutex;
  std::vector<std::future<void>> mReplies;
};

class ReadingTest : public ::testing::Test {
 protected:
  static constexpr std::uint32_t kRead = 128U << 10;
  static constexpr std::uint32_t kReads = 40;  ///< of the longest file

  struct Requests : FileRequests {
    explicit Requests(OneFileHost& host) : disk(host) {}
    void read(std::int64_t offset, std::uint32_t size, Callback<FileData> done) override {
      disk.read("/f", offset, size, std::move(done));
    }
    Disk disk;
  };

  void begin(std::string contents) {
    mHost.contents = std::move(contents);
    mHost.requests = 0;
    mHost.bytesRequested = 0;
  }
  std::string read(std::uint32_t offset, std::uint32_t size = kRead) {
    const auto parts = mAhead.read(offset, size, kReads * kRead);
    if (!parts) return "errno " + std::to_string(parts.error().value);
    std::string all;
    for (const ReadPart& part : *parts) all += text(part.bytes);
    return all;
  }

  ReadWindow mWindow;
  ReadCounters mCounters;
  OneFileHost mHost;  // waits for its replies before the others go
  ReadAhead mAhead{std::make_shared<Requests>(mHost), mWindow, mCounters};
};

TEST_F(ReadingTest, EachByteIsRequestedOnceInAnyOrderAndInLargePiecesInOrder) {
  std::string all;
  for (int i = 10'000'000; all.size() < kReads * kRead; ++i) all += std::to_string(i);
  begin(all);
  for (std::uint32_t i = 0; i < kReads; ++i) {
    const std::uint32_t at = i * 27 % kReads * kRead;  // here and there
    ASSERT_EQ(read(at, 4096), all.substr(at, 4096)) << i;
  }
  EXPECT_EQ(mHost.bytesRequested, kReads * 4096U);
  EXPECT_EQ(mHost.requests, kReads);
  begin(all);
  for (std::uint32_t i = 0; i < kReads; ++i) {
    const std::uint32_t at = (i ^ 1) * kRead;  // in order, but for neighbours
    ASSERT_EQ(read(at), all.substr(at, kRead)) << i;
  }
  EXPECT_EQ(mHost.bytesRequested, kReads * kRead);
  EXPECT_LT(mHost.requests, 30U);
}

TEST_F(ReadingTest, OnlyPresentFailuresAreReported) {
  begin(std::string(3 * kRead, 'a'));
  mHost.answered = 1;
  EXPECT_EQ(read(0), std::string(kRead, 'a'));
  EXPECT_EQ(read(kRead), "errno 5");
  mHost.answered = 1U << 30;
  EXPECT_EQ(read(kRead), std::string(kRead, 'a'));
  EXPECT_EQ(read(2 * kRead), std::string(kRead, 'a'));
  begin(std::string(3 * kRead + 4, 'b'));
  mAhead.drop();
  EXPECT_EQ(read(3 * kRead), "bbbb");
  EXPECT_EQ(read(4 * kRead), "errno 5");
}

class SmallFilesTest : public ReadingTest, public ::testing::WithParamInterface<std::uint64_t> {
 protected:
  static constexpr std::uint64_t kFiles = 100;

  SmallFilesTest() {
    begin(std::string(4096, 'x'));
    for (std::uint64_t i = 0, at = 0; i < kFiles; ++i, at = i * GetParam() % kFiles) {
      udisk_stat attributes{};
      attributes.st_mode = S_IFREG | 0644;
      attributes.st_ino = i;
      attributes.st_nlink = 1;
      attributes.st_size = 4096;
      (*mItems)[at] = {std::to_string(at + kFiles), attributes};
    }
  }
  /// What a batch has of the file that is opened as the i-th of its directory.
  std::shared_ptr<const SmallFile> get(NodeId directory, std::uint64_t i, bool changed = false) {
    DirectoryItem item = (*mItems)[i * GetParam() % kFiles];
    if (changed) ++item.attributes.st_ctim.tv_nsec;
    auto path = [this] {
      const MutexLock lock(mMutex);
      return mGate.lease(kRootNode);
    }();
    return mSmall.get(directory, std::move(*path), mItems, item.name, item.attributes);
  }

  std::shared_ptr<std::vector<DirectoryItem>> mItems =
      std::make_shared<std::vector<DirectoryItem>>(kFiles);
  Mutex mMutex;
  NameCache mNames;
  PathGate mGate{mMutex, mNames};
  DiskRequests mDisk{mHost};
  SmallFiles mSmall{mDisk, mWindow, mCounters};
};

TEST_P(SmallFilesTest, AreFetchedWithAboutOneBatchForEachDirectoryOfAScan) {
  unsigned single = 0;
  for (NodeId directory = 1; directory <= 20; ++directory) {
    for (std::uint64_t i = 0; i < kFiles; ++i) {
      const auto found = get(directory, i);
      EXPECT_TRUE(!found || text(found->contents) == mHost.contents);
      if (!found) ++single;
    }
  }
  for (NodeId directory = 21; directory <= 30; ++directory) {
    if (!get(directory, 0)) ++single;  // one file of each is no scan
  }
  EXPECT_LE(mHost.requests + single, 40U);
}

TEST_P(SmallFilesTest, AreNotGivenWhenTheyChangedMeanwhile) {
  for (std::uint64_t i = 0; i < 50; ++i) get(1, i);
  EXPECT_FALSE(get(1, 50, true));
  ASSERT_TRUE(get(1, 51));
  mHost.contents[0] = 'y';
  mSmall.forget(1, (*mItems)[52 * GetParam() % kFiles].name);
  const auto found = get(1, 52);
  EXPECT_TRUE(!found || text(found->contents)[0] == 'y');
}

// In the order of the names, and of the inode numbers, by which some programs sort.
INSTANTIATE_TEST_SUITE_P(InTheOrderOf, SmallFilesTest, ::testing::Values(1, 37));

TEST(ReadWindowTest, FillsALinkAndKeepsItsQueueShort) {
  struct Link {
    double rate;     ///< bytes per microsecond
    double longest;  ///< seconds' worth that may be in flight
  };
  constexpr auto kDelay = 40ms;
  for (const Link& link : {Link{0.125, 1.04}, {10, 0.2}, {100, 0.09}}) {
    ReadWindow window;
    std::deque<std::pair<ReadWindow::Time, ReadWindow::Ticket>> inFlight;  // with their ends
    ReadWindow::Time now{};
    ReadWindow::Time idle{};  // from when on the link is
    double bytes = 0;
    while (now.time_since_epoch() < 30s) {
      while (const auto ticket = window.tryBegin(window.chunkSize(), now)) {
        idle = std::max(idle, now) + 1us * static_cast<int>(ticket->bytes / link.rate);
        inFlight.emplace_back(idle, *ticket);
      }
      const auto [end, ticket] = inFlight.front();
      inFlight.pop_front();
      now = end + kDelay;
      bytes += ticket.bytes;
      window.finished(ticket, ticket.bytes, now);
    }
    EXPECT_GT(bytes, 27e6 * link.rate) << link.rate;
    EXPECT_LT(static_cast<double>(window.size()), link.longest * link.rate * 1e6) << link.rate;
  }
}

}  // namespace
}  // namespace zor::client::test
