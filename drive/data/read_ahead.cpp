#include "drive/data/read_ahead.h"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>

#include "support/mutex.h"

namespace zor::client {

namespace {

constexpr std::uint64_t kMaxAhead = 8U << 20;
constexpr std::uint64_t kFirstAhead = 128U << 10;
constexpr std::uint64_t kLargeRead = 64U << 10;
constexpr std::uint64_t kNearReads = 8;          ///< how far reads may arrive out of order
constexpr std::uint64_t kKeptBehind = 1U << 20;  ///< for reads that were overtaken

}  // namespace

/// Shared with the replies that are under way.
class ReadAhead::State : public std::enable_shared_from_this<State> {
 public:
  State(std::shared_ptr<FileRequests> file, ReadWindow& window, ReadCounters& counters)
      : mFile(std::move(file)), mWindow(window), mCounters(counters) {}

  Outcome<ReadParts> read(std::uint64_t begin, std::uint64_t end, std::uint64_t fileSize);
  void drop();

 private:
  struct Chunk {
    std::uint64_t offset = 0;
    std::uint32_t size = 0;
    bool ahead = false;  ///< nobody had asked for it
    ReadWindow::Ticket ticket;
    // Guarded by the mutex; `data` does not change once it has arrived.
    bool arrived = false;
    std::optional<FileData> data;  ///< nothing when there was no reply
    std::uint64_t consumed = 0;
    int waiting = 0;
    Condition arrival;

    std::uint64_t end() const { return offset + size; }
    wire::Bytes bytes() const {
      if (!data) return {};
      return data->bytes().first(std::min<std::size_t>(data->bytes().size(), size));
    }
  };
  using ChunkPtr = std::shared_ptr<Chunk>;
  using Chunks = std::vector<ChunkPtr>;
  enum class Collected { kDone, kStale, kFailed };

  // With mMutex held.
  void follow(std::uint64_t begin, std::uint64_t end);
  Chunks cover(std::uint64_t begin, std::uint64_t end, Chunks& starting);
  ChunkPtr demand(std::uint64_t begin, std::uint64_t end, Chunks& starting);
  void planAhead(Chunks& starting);
  Collected collect(const Chunks& chunks, std::uint64_t& at, std::uint64_t end, ReadParts& parts)
      REQUIRES(mMutex);
  void consume(const ChunkPtr& chunk, std::uint64_t count);
  void dropChunks(std::uint64_t until);

  // Without it.
  void start(const Chunks& chunks);
  void arrived(const ChunkPtr& chunk, Result<FileData> reply);

  const std::shared_ptr<FileRequests> mFile;
  ReadWindow& mWindow;
  ReadCounters& mCounters;

  Mutex mMutex;
  std::map<std::uint64_t, ChunkPtr> mAhead;  ///< by offset; they do not overlap
  std::uint64_t mFileSize = 0;
  std::uint64_t mNext = 0;  ///< the furthest that the present run of reads has come
  std::uint64_t mRun = 0;   ///< bytes by which it has advanced
  int mAdvances = 0;        ///< reads that advanced it, as far as they matter
  bool mStarted = false;
  bool mLarge = false;  ///< the last read asked for much
};

Outcome<ReadParts> ReadAhead::State::read(std::uint64_t begin, std::uint64_t end,
                                          std::uint64_t fileSize) {
  ReadParts parts;
  std::uint64_t at = begin;
  Chunks starting;
  MutexLock lock(mMutex);
  mFileSize = fileSize;
  follow(begin, end);
  Chunks chunks = cover(begin, end, starting);
  planAhead(starting);
  for (;;) {
    lock.unlock();
    start(starting);
    lock.lock();
    const Collected collected = collect(chunks, at, end, parts);
    if (collected == Collected::kFailed) return Errno{EIO};
    if (collected == Collected::kDone) break;
    // What was read ahead may be old news. It is asked for again, once, since
    // a read of its own is never stale.
    dropChunks(std::numeric_limits<std::uint64_t>::max());
    mAdvances = 0;
    starting.clear();
    chunks = {demand(at, end, starting)};
  }
  if (parts.empty()) return Errno{EIO};
  return parts;
}

void ReadAhead::State::follow(std::uint64_t begin, std::uint64_t end) {
  const std::uint64_t size = end - begin;
  const std::uint64_t near = kNearReads * size;
  mLarge = size >= kLargeRead;
  const bool continues =
      mStarted ? begin <= mNext + near && mNext <= begin + near : begin == 0 && mLarge;
  mStarted = true;
  if (!continues) {
    dropChunks(std::numeric_limits<std::uint64_t>::max());
    mNext = end;
    mRun = 0;
    mAdvances = 0;
    return;
  }
  if (end <= mNext) return;
  mRun += end - mNext;
  mNext = end;
  mAdvances = std::min(mAdvances + 1, 2);
  dropChunks(mNext > kKeptBehind ? mNext - kKeptBehind : 0);
}

ReadAhead::State::Chunks ReadAhead::State::cover(std::uint64_t begin, std::uint64_t end,
                                                 Chunks& starting) {
  Chunks chunks;
  auto next = mAhead.upper_bound(begin);
  if (next != mAhead.begin() && std::prev(next)->second->end() > begin) --next;
  for (std::uint64_t at = begin; at < end;) {
    if (next == mAhead.end() || next->first >= end) {
      chunks.push_back(demand(at, end, starting));
      break;
    }
    if (next->first > at) chunks.push_back(demand(at, next->first, starting));
    chunks.push_back(next->second);
    at = next->second->end();
    ++next;
  }
  return chunks;
}

ReadAhead::State::ChunkPtr ReadAhead::State::demand(std::uint64_t begin, std::uint64_t end,
                                                    Chunks& starting) {
  auto chunk = std::make_shared<Chunk>();
  chunk->offset = begin;
  chunk->size = static_cast<std::uint32_t>(end - begin);
  chunk->ticket = mWindow.begin(chunk->size);
  starting.push_back(chunk);
  return chunk;
}

void ReadAhead::State::planAhead(Chunks& starting) {
  if (mAdvances < (mLarge ? 1 : 2)) return;
  const std::uint64_t ahead = std::clamp(2 * mRun, kFirstAhead, kMaxAhead);
  const std::uint64_t piece = std::min<std::uint64_t>(mWindow.chunkSize(), ahead);
  std::uint64_t at = mNext;
  if (!mAhead.empty()) at = std::max(at, mAhead.rbegin()->second->end());
  while (at < mFileSize) {
    const std::uint64_t size = std::min(piece, mFileSize - at);
    if (at + size - mNext > ahead) return;
    const auto ticket = mWindow.tryBegin(static_cast<std::uint32_t>(size));
    if (!ticket) return;
    auto chunk = std::make_shared<Chunk>();
    chunk->offset = at;
    chunk->size = ticket->bytes;
    chunk->ahead = true;
    chunk->ticket = *ticket;
    mAhead.emplace_hint(mAhead.end(), at, chunk);
    starting.push_back(std::move(chunk));
    at += size;
  }
}

ReadAhead::State::Collected ReadAhead::State::collect(const Chunks& chunks, std::uint64_t& at,
                                                      std::uint64_t end, ReadParts& parts) {
  for (const ChunkPtr& chunk : chunks) {
    ++chunk->waiting;
    while (!chunk->arrived) chunk->arrival.wait(mMutex);
    --chunk->waiting;
    const std::uint64_t wanted = std::min(end, chunk->end()) - at;
    const std::uint64_t skipped = at - chunk->offset;
    const wire::Bytes bytes = chunk->bytes();
    const std::uint64_t count =
        bytes.size() > skipped ? std::min(wanted, bytes.size() - skipped) : 0;
    if (count > 0) {
      parts.push_back({chunk, bytes.subspan(skipped, count)});
      at += count;
      if (chunk->ahead) consume(chunk, count);
    }
    if (count == wanted) continue;
    if (chunk->ahead) return Collected::kStale;
    return chunk->data ? Collected::kDone : Collected::kFailed;
  }
  return Collected::kDone;
}

void ReadAhead::State::consume(const ChunkPtr& chunk, std::uint64_t count) {
  ReadCounters::add(mCounters.readAheadHits, count);
  chunk->consumed += count;
  if (chunk->consumed < chunk->size) return;
  const auto found = mAhead.find(chunk->offset);
  if (found != mAhead.end() && found->second == chunk) mAhead.erase(found);
}

void ReadAhead::State::dropChunks(std::uint64_t until) {
  while (!mAhead.empty() && mAhead.begin()->second->end() <= until) {
    const Chunk& chunk = *mAhead.begin()->second;
    ReadCounters::add(mCounters.readAheadWasted,
                      chunk.size - std::min<std::uint64_t>(chunk.size, chunk.consumed));
    mAhead.erase(mAhead.begin());
  }
}

void ReadAhead::State::drop() {
  const MutexLock lock(mMutex);
  dropChunks(std::numeric_limits<std::uint64_t>::max());
  mRun = 0;
  mAdvances = 0;  // replies under way start nothing more
}

void ReadAhead::State::start(const Chunks& chunks) {
  for (const ChunkPtr& chunk : chunks) {
    mFile->read(static_cast<std::int64_t>(chunk->offset), chunk->size,
                [self = shared_from_this(), chunk](Result<FileData> reply) {
                  self->arrived(chunk, std::move(reply));
                });
  }
}

void ReadAhead::State::arrived(const ChunkPtr& chunk, Result<FileData> reply) {
  mWindow.finished(chunk->ticket, reply ? reply->bytes().size() : 0);
  Chunks starting;
  {
    const MutexLock lock(mMutex);
    if (reply) chunk->data.emplace(std::move(*reply));
    chunk->arrived = true;
    if (chunk->waiting > 0) chunk->arrival.notifyAll();
    if (chunk->bytes().size() == chunk->size) {
      planAhead(starting);
    } else {
      mAdvances = 0;
    }
  }
  start(starting);
}

ReadAhead::ReadAhead(std::shared_ptr<FileRequests> file, ReadWindow& window, ReadCounters& counters)
    : mState(std::make_shared<State>(std::move(file), window, counters)) {}

ReadAhead::~ReadAhead() { mState->drop(); }

Outcome<ReadParts> ReadAhead::read(std::int64_t offset, std::uint32_t size,
                                   std::uint64_t fileSize) {
  constexpr auto kMaxOffset = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (offset < 0) return Errno{EINVAL};
  fileSize = std::min(fileSize, kMaxOffset);
  const auto begin = static_cast<std::uint64_t>(offset);
  if (size == 0 || begin >= fileSize) return ReadParts{};
  return mState->read(begin, begin + std::min<std::uint64_t>(size, fileSize - begin), fileSize);
}

void ReadAhead::drop() { mState->drop(); }

}  // namespace zor::client
