// Opening and reading.
#include <fcntl.h>

#include <algorithm>
#include <utility>

#include "drive/drive.h"
#include "drive/open_file.h"

namespace zor::client {

namespace {

/// Disks count times in up to two seconds: what was read this soon after a
/// change may miss another one that left the same time.
constexpr std::chrono::seconds kTimeGranularity{3};

constexpr std::size_t kCheapListing = 4096;

std::uint64_t sizeOf(const ReadParts& parts) {
  std::uint64_t size = 0;
  for (const ReadPart& part : parts) size += part.bytes.size();
  return size;
}

}  // namespace

class OpenFile::Requests final : public FileRequests {
 public:
  Requests(Drive& drive, NodeId node) : mDrive(drive), mNode(node) {}

  void read(std::int64_t offset, std::uint32_t size, Callback<FileData> done) override {
    mDrive.startRead(mNode, offset, size, std::move(done));
  }

 private:
  Drive& mDrive;
  const NodeId mNode;
};

OpenFile::OpenFile(Drive& drive, NodeId node, bool writable, std::uint64_t failures)
    : mNode(node),
      mWritable(writable),
      mRequests(std::make_shared<Requests>(drive, node)),
      mAhead(mRequests, drive.mReadWindow, drive.mReadCounters),
      mToldFailures(failures) {}

OpenResult Drive::openNode(Node& node, bool writable) {
  if (!node.file) node.file = std::make_unique<FileState>();
  ++node.file->handles;
  OpenResult result;
  std::unique_ptr<OpenFile> file(new OpenFile(*this, node.id, writable, node.file->failures));
  result.file = file.get();
  mOpenFiles.emplace(result.file, std::move(file));
  if (node.place != nullptr) {
    const ContentStamp stamp = stampOf(node.place->second.attributes);
    const Clock::time_point now = Clock::now();
    result.keepCache = node.cacheTrusted && node.stamp == stamp && !node.file->ahead &&
                       node.place->second.attributes.st_nlink <= 1;
    if (node.stamp != stamp) {
      node.stamp = stamp;
      node.stampSince = now;
    }
    node.cacheTrusted = now - node.stampSince > kTimeGranularity;
  }
  return result;
}

Outcome<OpenResult> Drive::open(NodeId id, int flags) {
  Lock lock = lockNames();
  Node* node = mTree.find(id);
  if (node == nullptr || !mTree.has(*node)) return Errno{ESTALE};
  if (node->directory) return Errno{EISDIR};
  // Only contents of regular files travel.
  if (!isRegular(node->place->second.attributes)) return Errno{EACCES};
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  if (writes) {
    if (const Outcome<Unit> allowed = askToWrite(lock, id); !allowed) return allowed.error();
  }
  if ((flags & O_ACCMODE) != O_WRONLY) {
    if (const Outcome<Unit> allowed = askToRead(lock, id); !allowed) return allowed.error();
  }
  return openNode(*mTree.find(id), writes);
}

void Drive::startRead(NodeId id, std::int64_t offset, std::uint32_t size, Callback<FileData> done) {
  const std::lock_guard lock(mMutex);
  auto start = [this, id, offset, size, done = std::move(done)]() mutable {
    Node* node = mTree.find(id);
    // The host serves in order: what was written before is read.
    if (node != nullptr && node->file && !node->file->gather.empty()) sendGathered(*node);
    beginRead(node, offset, size, std::move(done));
  };
  if (mRenaming) {
    mDeferred.emplace_back(std::move(start));
  } else {
    start();
  }
}

void Drive::beginRead(const Node* node, std::int64_t offset, std::uint32_t size,
                      Callback<FileData> done) {
  ++mOutstanding;
  auto finish = [this, done = std::move(done)](Result<FileData> data) {
    done(std::move(data));
    const std::lock_guard lock(mMutex);
    if (--mOutstanding == 0) mSettled.notify_all();
  };
  const std::optional<std::string> path = node == nullptr ? std::nullopt : mTree.path(*node);
  if (path) {
    mDisk.read(*path, offset, size, std::move(finish));
  } else {
    mTransport.post([finish = std::move(finish)] {
      finish(Error{ErrorKind::kFailed, "the file is gone"});
    });
  }
}

Outcome<ReadParts> Drive::read(OpenFile& file, std::int64_t offset, std::uint32_t size) {
  Lock lock(mMutex);
  bool begins = false;
  for (int attempt = 0;;) {
    const Node* node = mTree.find(file.mNode);
    if (node == nullptr || !mTree.has(*node)) return Errno{ESTALE};
    const Entry& entry = node->place->second;
    const std::int64_t length = visible(entry).st_size;
    if (offset < 0 || offset >= length) return ReadParts{};
    const std::uint32_t wanted =
        static_cast<std::uint32_t>(std::min<std::int64_t>(size, length - offset));
    const ContentStamp stamp = stampOf(entry.attributes);
    begins = !std::exchange(file.mRead, true) && offset == 0;
    if (begins && mOptions.smallFiles && length <= kMaxSmallFile && !node->file->ahead &&
        !entry.hidden) {
      // Changes in a large directory would make it anew for every file.
      Directory& known = *node->parent->directory;
      DirectorySnapshot listing = known.snapshot;
      if (listing == nullptr && known.complete && known.entries.size() < kCheapListing) {
        listing = snapshotOf(known);
      }
      const std::string directory = *mTree.path(*node->parent);
      const std::string name = node->place->first;
      const udisk_stat now = entry.attributes;
      if (listing != nullptr) {
        lock.unlock();
        std::shared_ptr<const SmallFile> small = mSmallFiles.get(directory, listing, name, now);
        lock.lock();
        file.mSmall = std::move(small);
        file.mSmallStamp = stamp;
        continue;
      }
    }
    if (file.mSmall != nullptr && file.mSmallStamp == stamp && !node->file->ahead) {
      const wire::Bytes bytes = file.mSmall->contents;
      if (static_cast<std::int64_t>(bytes.size()) == length) {
        mCounters.bytesRead += wanted;
        return ReadParts{
            {file.mSmall->memory, bytes.subspan(static_cast<std::size_t>(offset), wanted)}};
      }
    }
    file.mSmall = nullptr;
    // Disks may give two changes the same time.
    const bool linked = entry.attributes.st_nlink > 1 && file.mReadEpoch != mLinkEpoch;
    if (file.mReadStamp != stamp || file.mReadWrites != node->file->writes || linked) {
      file.mAhead.drop();
      file.mReadEpoch = mLinkEpoch;
      file.mReadStamp = stamp;
      file.mReadWrites = node->file->writes;
    }
    identify(*node);
    lock.unlock();
    Outcome<ReadParts> parts = file.mAhead.read(offset, wanted, static_cast<std::uint64_t>(length));
    lock.lock();
    const Node* still = mTree.find(file.mNode);
    if (still == nullptr || !mTree.has(*still)) return Errno{ESTALE};
    if (parts && sizeOf(*parts) == wanted) {
      mCounters.bytesRead += wanted;
      return parts;
    }
    // The file shrank, has another name, or cannot be read: its attributes tell.
    if (attempt++ > 0) return Errno{EIO};
    file.mAhead.drop();
    if (look(lock, still->parent->id, std::string(still->place->first)).isUnknown()) {
      return Errno{EIO};
    }
  }
}

}  // namespace zor::client
