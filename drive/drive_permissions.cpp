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

/// The host opens a file for every request, as a user who is not known here. Whether it
/// may write is asked for once for each kind of file: programs such as shells look at
/// the result of open, and not at the one of close.
Outcome<Unit> Drive::askToWrite(Lock& lock, NodeId id) {
  const Node* node = mTree.find(id);
  const Entry& entry = node->place->second;
  const NodeId directory = node->parent->id;
  const std::string name = node->place->first;
  const Rights rights = rightsOf(entry.attributes);
  const bool ours = node->file && (node->file->young || node->file->lateMode);
  if (ours || mWritable.contains(rights)) return Unit{};
  const std::string path = *mTree.path(*node);
  // Of what the protocol has, only this opens a file for writing and changes nothing.
  const Result<Unit> opened = ask<Unit>(
      lock, [&](auto done) { mDisk.fsync(path, std::move(done)); }, [](auto&) {});
  if (!opened && opened.error().kind != ErrorKind::kFailed) return Errno{EIO};
  if (!opened) {
    const Presence seen = look(lock, directory, name);
    if (!seen.isPresent()) return Errno{seen.isAbsent() ? ESTALE : EIO};
    return Errno{refusal(lock, EACCES) == EROFS ? EROFS : EACCES};
  }
  waitForNames(lock);
  node = mTree.find(id);
  if (node == nullptr || !mTree.has(*node)) return Errno{ESTALE};
  if (rightsOf(node->place->second.attributes) == rights)
    knowWritable(node->place->second.attributes);
  return Unit{};
}

/// A file that nobody may read is read by root alone.
Outcome<Unit> Drive::askToRead(Lock& lock, NodeId id) {
  const Node& node = *mTree.find(id);
  const udisk_stat& attributes = node.place->second.attributes;
  if ((attributes.st_mode & kReadMode) != 0 || attributes.st_size == 0) return Unit{};
  const std::string path = *mTree.path(node);
  const Result<FileData> read = ask<FileData>(
      lock, [&](auto done) { mDisk.read(path, 0, 1, std::move(done)); }, [](auto&) {});
  if (!read && read.error().kind != ErrorKind::kFailed) return Errno{EIO};
  waitForNames(lock);
  const Node* still = mTree.find(id);
  if (still == nullptr || !mTree.has(*still)) return Errno{ESTALE};
  return read && !read->bytes().empty() ? Outcome<Unit>(Unit{}) : Errno{EACCES};
}

}  // namespace zor::client
