// Opening and reading.
#include <fcntl.h>

#include <algorithm>
#include <utility>

#include "drive/drive.h"

namespace zor::client {

namespace {

/// Disks count times in up to two seconds: what was read this soon after a change may miss
/// another one that left the same time.
constexpr std::chrono::seconds kTimeGranularity{3};

std::uint64_t sizeOf(const ReadParts& parts) {
  std::uint64_t size = 0;
  for (const ReadPart& part : parts) size += part.bytes.size();
  return size;
}

}  // namespace

OpenResult Drive::openNode(Node& node, bool writable) {
  FileState& state = mWriteBack.open(node);
  ++state.handles;
  OpenResult result;
  std::unique_ptr<OpenFile> file(new OpenFile(mReading, node, writable));
  result.file = file.get();
  mOpenFiles.emplace(result.file, std::move(file));
  if (node.place != nullptr) {
    const udisk_stat& attributes = node.entry().attributes;
    const ContentStamp stamp = stampOf(attributes);
    const Clock::time_point now = mNames.now();
    result.keepCache =
        node.cacheTrusted && node.stamp == stamp && !state.dirty && attributes.st_nlink <= 1;
    if (node.stamp != stamp) {
      node.stamp = stamp;
      node.stampSince = now;
    }
    node.cacheTrusted = now - node.stampSince > kTimeGranularity;
  }
  return result;
}

Outcome<OpenResult> Drive::open(NodeId id, int flags) {
  const MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  Node* node = mNames.find(id);
  if (node == nullptr || !mNames.has(*node)) return Errno{ESTALE};
  if (node->directory) return Errno{EISDIR};
  // It is being removed. The kernel then looks up the name, which is another one of the file.
  if (isUnusedSilly(node->parent->id, node->name()) &&
      !isUnfinished(node->parent->id, node->name())) {
    return Errno{ESTALE};
  }
  // Only contents of regular files travel.
  if (!isRegular(node->entry().attributes)) return Errno{EACCES};
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  if (writes) {
    if (const Outcome<Unit> allowed = checkWritable(id); !allowed) return allowed.error();
  }
  if ((flags & O_ACCMODE) != O_WRONLY) {
    if (const Outcome<Unit> allowed = checkReadable(id); !allowed) return allowed.error();
  }
  return openNode(*mNames.find(id), writes);
}

Outcome<ReadParts> Drive::read(OpenFile& file, std::int64_t offset, std::uint32_t size) {
  const MutexLock lock(mMutex);
  for (int attempt = 0;;) {
    const Node* node = mNames.find(file.mNode);
    if (node == nullptr || !mNames.has(*node)) return Errno{ESTALE};
    const std::int64_t length = mNames.shown(node->entry()).st_size;
    if (offset < 0 || offset >= length) return ReadParts{};
    if (file.mReader.prefetch(*node, offset, length)) continue;
    const auto wanted = static_cast<std::uint32_t>(std::min<std::int64_t>(size, length - offset));
    Outcome<ReadParts> parts = file.mReader.read(*node, offset, wanted, length);
    node = mNames.find(file.mNode);
    if (node == nullptr || !mNames.has(*node)) return Errno{ESTALE};
    if (parts && sizeOf(*parts) == wanted) {
      mCounters.bytesRead += wanted;
      return parts;
    }
    // The file shrank, has another name, or cannot be read: its attributes show which.
    if (attempt++ > 0) return Errno{EIO};
    file.mReader.invalidate();
    const NodeId directory = node->parent->id;
    if (revalidate(directory, std::string(node->name())).isUnknown()) return Errno{EIO};
  }
}

}  // namespace zor::client
