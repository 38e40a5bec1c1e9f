// What the host may do with files, as far as that can be known before it is done.
#include <utility>

#include "drive/drive.h"

namespace zor::client {

namespace {

constexpr std::size_t kMaxRights = 1024;

constexpr std::uint32_t kReadMode = 0444;

}  // namespace

void Drive::knowWritable(const udisk_stat& attributes) {
  if (mWritable.size() >= kMaxRights) mWritable.clear();
  mWritable.insert(rightsOf(attributes));
}

/// The host opens a file for every request, as a user who is not known here. Whether it may
/// write is asked once for each kind of file: programs such as shells check the result of
/// open, and not the one of close.
Outcome<Unit> Drive::checkWritable(NodeId id) {
  CompoundRequest request(mHost);
  const PathLease* at = request.at(id);
  if (at == nullptr) return Errno{ESTALE};
  const Node* node = mNames.find(id);
  const Rights rights = rightsOf(node->entry().attributes);
  const bool ours = node->open && (!stateOf(*node)->creation.none() || node->open->deferredMode);
  if (ours || mWritable.contains(rights)) return Unit{};
  // Of what the protocol has, only this opens a file for writing and changes nothing.
  const Status opened = request.get<Unit>([&](auto done) { mDisk.fsync(*at, std::move(done)); });
  if (!opened && opened.error().kind != ErrorKind::kFailed) return Errno{EIO};
  mGate.waitUntilOpen();
  node = mNames.find(id);
  if (node == nullptr || !mNames.has(*node)) return Errno{ESTALE};
  if (!opened) {
    const NodeId directory = node->parent->id;
    const Presence seen = revalidate(directory, std::string(node->name()));
    if (!seen.isPresent()) return Errno{seen.isAbsent() ? ESTALE : EIO};
    return Errno{refusal(EACCES) == EROFS ? EROFS : EACCES};
  }
  if (rightsOf(node->entry().attributes) == rights) knowWritable(node->entry().attributes);
  return Unit{};
}

/// A file that nobody may read is read by root alone.
Outcome<Unit> Drive::checkReadable(NodeId id) {
  CompoundRequest request(mHost);
  const PathLease* at = request.at(id);
  if (at == nullptr) return Errno{ESTALE};
  const udisk_stat& attributes = mNames.find(id)->entry().attributes;
  if ((attributes.st_mode & kReadMode) != 0 || attributes.st_size == 0) return Unit{};
  const Result<FileData> read =
      request.get<FileData>([&](auto done) { mDisk.read(*at, 0, 1, std::move(done)); });
  if (!read && read.error().kind != ErrorKind::kFailed) return Errno{EIO};
  mGate.waitUntilOpen();
  const Node* node = mNames.find(id);
  if (node == nullptr || !mNames.has(*node)) return Errno{ESTALE};
  return read && !read->bytes().empty() ? Outcome<Unit>(Unit{}) : Errno{EACCES};
}

}  // namespace zor::client
