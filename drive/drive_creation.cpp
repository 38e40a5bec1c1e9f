// New names.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "client/remote_path.h"
#include "drive/drive.h"

namespace zor::client {

namespace {

/// For how long a creation that succeeded vouches for the next in its directory.
constexpr std::chrono::seconds kCreationTrust{5};

bool hasBackslash(std::string_view path) { return path.find('\\') != std::string_view::npos; }

/// Whether every file system takes this name.
bool isHarmless(std::string_view name) {
  return name.size() < 100 && name.back() != '.' && name.back() != ' ' &&
         std::all_of(name.begin(), name.end(), [](char c) {
           return static_cast<unsigned char>(c) >= 0x20 &&
                  std::string_view("\\/:*?\"<>|\x7f").find(c) == std::string_view::npos;
         });
}

}  // namespace

// The host empties a file that it is to create while it exists already, and takes an
// existing directory for a new one. So every name is revalidated right before, whatever is
// known of it.

Outcome<Drive::Created> Drive::create(NodeId directory, std::string_view name, std::uint32_t mode,
                                      int flags) {
  MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  if (isPathTooLong(directory, name)) return Errno{ENAMETOOLONG};
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const std::string key = mNames.spelling(**parent, name);
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  // Whether the directory still takes files as it did; travels with the query of the name.
  CompoundRequest(mHost).queryDirectory(directory);
  const Presence seen = revalidate(directory, key);
  if (seen.isUnknown()) return Errno{EIO};
  if (seen.isPresent()) {
    if ((flags & O_EXCL) != 0) return Errno{EEXIST};
    if (isDirectory(seen.attributes())) return Errno{EISDIR};
    if (!isRegular(seen.attributes())) return Errno{EACCES};
  } else {
    mGate.waitUntilOpen();
    // Only writers see a failure at close.
    const Outcome<Unit> made = createFile(directory, key, mode | kOpenMode, writes);
    if (!made) return made.error();
  }
  const Outcome<NodeEntry> entry = enterByName(directory, key);
  if (!entry) return entry.error();
  Created result;
  result.entry = *entry;
  if (seen.isPresent() && writes) {
    if (const Outcome<Unit> allowed = checkWritable(entry->node); !allowed) {
      lock.unlock();
      forget(entry->node, 1);
      return allowed.error();
    }
  }
  Node& node = *mNames.find(result.entry.node);
  result.open = openNode(node, writes);
  if (seen.isAbsent()) {
    node.open->created = mNames.now();
    // Hosts do not let others write to what they create.
    if ((mode & kOpenMode) != kOpenMode || (mode & S_IWOTH) != 0) {
      node.open->deferredMode = mode & 07777U;
      result.entry.attributes = mNames.shown(node.entry());
    }
  }
  if (seen.isPresent() && (flags & O_TRUNC) != 0) {
    lock.unlock();
    const Outcome<Unit> emptied = setLength(result.entry.node, 0);
    if (!emptied) {
      release(*result.open.file);
      forget(result.entry.node, 1);
      return emptied.error();
    }
    result.entry.attributes.st_size = 0;
  }
  return result;
}

Outcome<Unit> Drive::createFile(NodeId directory, const std::string& name, std::uint32_t mode,
                                bool mayBeReportedLater) {
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const Directory& known = *(*parent)->directory;
  if (mayBeReportedLater && !hasBackslash(*mNames.path(**parent)) && isHarmless(name) &&
      mNames.now() - known.lastCreation < kCreationTrust &&
      known.creationRights == rightsOf(known.self)) {
    // Saves a round trip for each of many files that are created one after another.
    mWriteBack.create(mNames.addPending(**parent, name, mode), mode);
    return Unit{};
  }
  const Outcome<Unit> created =
      make(directory, name, false, [this, mode](const PathLease& at, Callback<Unit> done) {
        mDisk.create(at, mode, std::move(done));
      });
  if (!created) return created;
  if (const Entry* entry = mNames.findEntry(directory, name); entry != nullptr) {
    Directory& made = *mNames.find(directory)->directory;
    made.lastCreation = mNames.now();
    made.creationRights = rightsOf(made.self);
    knowWritable(entry->attributes);
  }
  return Unit{};
}

Outcome<Unit> Drive::make(NodeId directory, const std::string& name, bool isDir, const Make& make) {
  mGate.waitUntilOpen();
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  if (hasBackslash(*mNames.path(**parent)) || hasBackslash(name)) {
    return makeElsewhere(directory, name, isDir, make);
  }
  CompoundRequest request(mHost);
  const PathLease* at = request.at(directory, name);
  Status made = Unit{};
  request.add<Unit>([&](auto done) { make(*at, std::move(done)); },
                    [&made](Status& status) { made = status; });
  request.queryFile(directory, name);
  request.queryDirectory(directory);
  request.wait();
  if (made) return Unit{};
  if (made.error().kind != ErrorKind::kFailed) return Errno{EIO};
  return Errno{refusal(EACCES, {.name = name})};
}

/// Hosts take a backslash in the path of what they create for a separator, but not in a
/// rename. So it is created where the path has none, under another name.
Outcome<Unit> Drive::makeElsewhere(NodeId directory, const std::string& name, bool isDir,
                                   const Make& make) {
  const Node* place = mNames.find(directory);
  while (hasBackslash(*mNames.path(*place))) place = place->parent;
  const NodeId elsewhere = place->id;
  const std::string other = sillyName();
  CompoundRequest request(mHost);
  const PathLease* at = request.at(elsewhere, other);
  const std::string path = at->path();
  const Status status = request.get<Unit>([&](auto done) { make(*at, std::move(done)); });
  if (!status && status.error().kind != ErrorKind::kFailed) return Errno{EIO};
  if (!status) return Errno{refusal(EACCES, {.name = name})};
  const Outcome<Unit> renamed = renameLocked(elsewhere, other, directory, name);
  if (renamed) return renamed;
  const Outcome<Unit> removed = removeName(elsewhere, other, isDir);
  if (!removed && removed.error().value != ENOENT) {
    report("'" + name + "' could not be created; it is called '" + path + "' on the disk");
  }
  return renamed;
}

Outcome<NodeEntry> Drive::makeDirectory(NodeId directory, std::string_view name,
                                        std::uint32_t mode) {
  const MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  if (isPathTooLong(directory, name)) return Errno{ENAMETOOLONG};
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const std::string key = mNames.spelling(**parent, name);
  const Presence seen = revalidate(directory, key);
  if (!seen.isAbsent()) return Errno{seen.isPresent() ? EEXIST : EIO};
  const Outcome<Unit> made =
      make(directory, key, true, [this, mode](const PathLease& at, Callback<Unit> done) {
        mDisk.makeDir(at, static_cast<std::uint16_t>(mode & 07777U), std::move(done));
      });
  if (!made) return made.error();
  if ((mode & S_IWOTH) != 0) setModeLater(directory, key, mode);  // see `create`
  const Outcome<NodeEntry> entry = enterByName(directory, key);
  if (!entry) return entry.error();
  Node& node = *mNames.find(entry->node);
  if (!node.directory) {
    --node.references;
    mNames.releaseIfUnused(&node);
    return Errno{EIO};
  }
  mNames.learnNewDirectory(node);
  return entry;
}

Outcome<NodeEntry> Drive::link(NodeId existing, NodeId directory, std::string_view name) {
  const MutexLock lock(mMutex);
  mGate.waitUntilOpen();
  if (isPathTooLong(directory, name)) return Errno{ENAMETOOLONG};
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const std::string key = mNames.spelling(**parent, name);
  const Presence seen = revalidate(directory, key);
  if (!seen.isAbsent()) return Errno{seen.isPresent() ? EEXIST : EIO};
  const Outcome<Unit> flushed = mWriteBack.flush(existing, false);
  if (!flushed) return flushed.error();
  for (int attempt = 1;; ++attempt) {
    const Outcome<bool> linked = linkOnce(existing, directory, key);
    if (!linked) return linked.error();
    if (*linked) break;
    if (attempt == kMaxRepeats) return Errno{EIO};
  }
  return enterByName(directory, key);
}

/// False: it was lost with the link and is not there.
Outcome<bool> Drive::linkOnce(NodeId existing, NodeId directory, const std::string& key) {
  CompoundRequest request(mHost);
  const PathLease* from = request.at(existing);
  const PathLease* to = request.at(directory, key);
  if (from == nullptr || to == nullptr) return Errno{ESTALE};
  const Node& node = *mNames.find(existing);
  if (node.place == nullptr) return Errno{ESTALE};
  const udisk_stat attributes = node.entry().attributes;
  Status linked = Unit{};
  std::uint64_t made = 0;
  const std::uint64_t epoch = mNames.invalidateLinks();
  request.add<Unit>([&](auto done) { mDisk.link(*from, *to, std::move(done)); },
                    [&linked](Status& status) { linked = status; });
  request.queryFile(node.parent->id, node.name());
  request.add<udisk_stat>([&](auto done) { mDisk.attributes(*to, std::move(done)); },
                          [this, directory, epoch, &key, &made](Result<udisk_stat>& result) {
                            mMutex.assertHeld();
                            mNames.learn(directory, key, result, epoch);
                            if (result) made = result->st_ino;
                          });
  request.queryDirectory(directory);
  request.wait();
  if (!linked && linked.error().kind == ErrorKind::kFailed) {
    if (isElsewhere(attributes, directory)) return Errno{EXDEV};
    return Errno{refusal(EPERM, {.name = key})};
  }
  // Of a link that was lost on the way, the query behind it shows the outcome.
  if (!linked && made == 0) return false;
  if (made != attributes.st_ino) return Errno{EIO};
  return true;
}

}  // namespace zor::client
