#include "drive/data/reader.h"

#include <utility>

#include "drive/data/identity.h"

namespace zor::client {

namespace {

/// A snapshot of a larger directory is not made anew for the sake of one file.
constexpr std::size_t kCheapListing = 4096;

}  // namespace

/// The reads of one file under whatever name it has. Readahead goes on from completions,
/// which must not wait for a rename.
class Reader::Requests final : public FileRequests {
 public:
  Requests(ReadResources& shared, NodeId node) : mShared(shared), mNode(node) {}

  void read(std::int64_t offset, std::uint32_t size, Callback<FileData> done) override {
    HostAccess& host = mShared.host;
    const MutexLock lock(host.mutex);
    host.gate.whenOpen([&shared = mShared, id = mNode, offset, size, done = std::move(done)] {
      start(shared, id, offset, size, done);
    });
  }

 private:
  static void start(ReadResources& shared, NodeId id, std::int64_t offset, std::uint32_t size,
                    Callback<FileData> done) {
    HostAccess& host = shared.host;
    Node* node = host.names.find(id);
    // The host serves in order: what was written before is read.
    if (node != nullptr && node->open) shared.writeBack.send(*node);
    CompoundRequest request(host);
    if (const PathLease* at = request.at(id)) {
      host.disk.read(*at, offset, size, std::move(done));
    } else {
      host.disk.failLater(std::move(done));
    }
  }

  ReadResources& mShared;
  const NodeId mNode;
};

Reader::Reader(ReadResources& shared, NodeId node)
    : mShared(shared),
      mAhead(std::make_shared<Requests>(shared, node), shared.window, shared.counters) {}

bool Reader::prefetch(const Node& node, std::int64_t offset, std::int64_t length) {
  HostAccess& host = mShared.host;
  host.mutex.assertHeld();
  if (mBegun) return false;
  if (!host.gate.isOpen()) {
    host.gate.waitUntilOpen();
    return true;
  }
  mBegun = true;
  const Entry& entry = node.entry();
  if (offset != 0 || mShared.smallFiles == nullptr || length > kMaxSmallFile || node.open->dirty ||
      entry.silly) {
    return false;
  }
  Directory& known = *node.parent->directory;
  // Changes in a large directory would make the snapshot anew for every file.
  DirectorySnapshot listing = known.snapshot;
  if (listing == nullptr && known.complete && known.entries.size() < kCheapListing) {
    listing = snapshotOf(known);
  }
  if (listing == nullptr) return false;
  const NodeId directory = node.parent->id;
  const std::string name = node.name();
  const udisk_stat attributes = entry.attributes;
  std::optional<PathLease> path = host.gate.lease(directory);
  if (!path) return false;
  mSmall = unlocked(host.mutex, [&] {
    return mShared.smallFiles->get(directory, std::move(*path), listing, name, attributes);
  });
  mSmallStamp = stampOf(attributes);
  return true;
}

Outcome<ReadParts> Reader::read(const Node& node, std::int64_t offset, std::uint32_t size,
                                std::int64_t length) {
  HostAccess& host = mShared.host;
  host.mutex.assertHeld();
  const Entry& entry = node.entry();
  const FileState& file = *stateOf(node);
  const ContentStamp stamp = stampOf(entry.attributes);
  if (mSmall != nullptr && mSmallStamp == stamp && !file.dirty) {
    const wire::Bytes bytes = mSmall->contents;
    if (static_cast<std::int64_t>(bytes.size()) == length) {
      return ReadParts{{mSmall->memory, bytes.subspan(static_cast<std::size_t>(offset), size)}};
    }
  }
  mSmall = nullptr;
  // Disks may give two changes the same time.
  const std::uint64_t epoch = host.names.linkEpoch();
  const bool linked = entry.attributes.st_nlink > 1 && mEpoch != epoch;
  if (mStamp != stamp || mWrites != file.writes || linked) {
    mAhead.drop();
    mEpoch = epoch;
    mStamp = stamp;
    mWrites = file.writes;
  }
  identify(host, node);
  return unlocked(host.mutex,
                  [&] { return mAhead.read(offset, size, static_cast<std::uint64_t>(length)); });
}

}  // namespace zor::client
