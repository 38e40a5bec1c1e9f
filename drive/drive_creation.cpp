// New names.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "client/remote_path.h"
#include "drive/drive.h"

namespace zor::client {

namespace {

/// For how long a creation that succeeded speaks for the next in its directory.
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

// The host empties a file that it is to create while it exists already, and
// takes an existing directory for a new one. So every name is looked at right
// before, whatever is known of it.

Outcome<Drive::Created> Drive::create(NodeId directory, std::string_view name, std::uint32_t mode,
                                      int flags) {
  Lock lock = lockNames();
  if (isPathTooLong(directory, name)) return Errno{ENAMETOOLONG};
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const std::string key = spelling(**parent, name);
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  {
    // Whether the directory still takes files as it did; travels with the look.
    Burst burst(*this);
    burst.queryDirectory(directory);
  }
  const Presence seen = look(lock, directory, key);
  if (seen.isUnknown()) return Errno{EIO};
  if (seen.isPresent()) {
    if ((flags & O_EXCL) != 0) return Errno{EEXIST};
    if (isDirectory(seen.attributes())) return Errno{EISDIR};
    if (!isRegular(seen.attributes())) return Errno{EACCES};
  } else {
    waitForNames(lock);
    // Only who writes is told by the close.
    const Outcome<Unit> made = createFile(lock, directory, key, mode | kOpenMode, writes);
    if (!made) return made.error();
  }
  const Outcome<NodeEntry> entry = enterByName(directory, key);
  if (!entry) return entry.error();
  Created result;
  result.entry = *entry;
  if (seen.isPresent() && writes) {
    if (const Outcome<Unit> allowed = askToWrite(lock, entry->node); !allowed) {
      lock.unlock();
      forget(entry->node, 1);
      return allowed.error();
    }
  }
  Node& node = *mTree.find(result.entry.node);
  result.open = openNode(node, writes);
  if (seen.isAbsent()) {
    node.file->created = Clock::now();
    // Hosts do not let others write to what they make.
    if ((mode & kOpenMode) != kOpenMode || (mode & S_IWOTH) != 0) {
      node.file->lateMode = mode & 07777U;
      result.entry.attributes = visible(node.place->second);
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

Outcome<Unit> Drive::createFile(Lock& lock, NodeId directory, const std::string& name,
                                std::uint32_t mode, bool mayBeToldLater) {
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const std::string path = joinPath(*mTree.path(**parent), name);
  Directory& known = *(*parent)->directory;
  if (mayBeToldLater && !hasBackslash(path) && Clock::now() - known.lastCreation < kCreationTrust &&
      known.creationRights == rightsOf(known.self) && isHarmless(name)) {
    createWithoutWaiting(**parent, path, name, mode);
    return Unit{};
  }
  const Make make = [this, mode](const std::string& at, Callback<Unit> done) {
    mDisk.create(at, mode, std::move(done));
  };
  const Outcome<Unit> created = hasBackslash(path)
                                    ? makeElsewhere(lock, directory, name, make, false)
                                    : makeHere(lock, directory, name, make);
  if (!created) return created;
  if (Node* node = mTree.find(directory)) {
    Directory& made = *node->directory;
    if (made.entries.contains(name)) {
      made.lastCreation = Clock::now();
      made.creationRights = rightsOf(made.self);
      knowWritable(made.entries.find(name)->second.attributes);
    }
  }
  return Unit{};
}

/// Saves a round trip for each of many files that are created one after
/// another. A failure is told by the file's close, like that of a write.
void Drive::createWithoutWaiting(Node& parent, const std::string& path, const std::string& name,
                                 std::uint32_t mode) {
  Entry fresh;
  fresh.attributes.st_mode = S_IFREG | (mode & 07777U);
  fresh.attributes.st_uid = parent.directory->self.st_uid;
  fresh.attributes.st_gid = parent.directory->self.st_gid;
  fresh.attributes.st_nlink = 1;
  fresh.stale = true;
  fresh.changing = true;
  mTree.remove(parent, name);
  const auto at = parent.directory->entries.emplace(name, fresh).first;
  parent.directory->snapshot = nullptr;
  Node& node = mTree.nodeAt(parent, *at);
  node.file = std::make_unique<FileState>();
  node.file->ahead = true;
  node.file->young = true;
  ++parent.directory->young;
  node.file->lastWrite = wallClock();
  ++node.file->inFlight;
  mDisk.create(
      path, mode,
      whenAnswered<Unit>([this, path, id = node.id, directory = parent.id](Status& status) {
        Node& made = *mTree.find(id);
        if (made.place != nullptr) made.place->second.changing = false;
        if (status) {
          if (Node* above = mTree.find(directory)) {
            above->directory->lastCreation = Clock::now();
          }
        } else {
          made.file->neverMade = true;
          writeFailed(made, path);
        }
        answered(made);
      }));
  Burst burst(*this);
  burst.queryFile(path, parent.id, name);
  burst.add<udisk_stat>([&](auto done) { mDisk.attributes(*mTree.path(parent), std::move(done)); },
                        [this, id = node.id, directory = parent.id](Result<udisk_stat>& result) {
                          learnSelf(directory, result);
                          if (Node* made = mTree.find(id); made != nullptr && made->file)
                            made->file->young = false;
                          if (Node* above = mTree.find(directory); above != nullptr) {
                            --above->directory->young;
                            above->directory->snapshot = nullptr;
                          }
                          mSettled.notify_all();
                        });
}

Outcome<Unit> Drive::makeHere(Lock& lock, NodeId directory, const std::string& name,
                              const Make& make) {
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const std::string path = joinPath(*mTree.path(**parent), name);
  Status made = Unit{};
  Burst burst(*this);
  burst.add<Unit>([&](auto done) { make(path, std::move(done)); },
                  [&made](Status& status) { made = status; });
  burst.queryFile(path, directory, name);
  burst.queryDirectory(directory);
  burst.wait(lock);
  if (made) return Unit{};
  if (made.error().kind != ErrorKind::kFailed) return Errno{EIO};
  return Errno{refusal(lock, EACCES, {.name = name})};
}

/// Hosts take a backslash in the path of what they make for a separator, but not in a
/// rename. So it is made where the path has none, under another name.
Outcome<Unit> Drive::makeElsewhere(Lock& lock, NodeId directory, const std::string& name,
                                   const Make& make, bool isDir) {
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const Node* place = *parent;
  while (hasBackslash(*mTree.path(*place))) place = place->parent;
  const NodeId elsewhere = place->id;
  const std::string path = joinPath(*mTree.path(*place), hiddenName());
  const std::string made(baseName(path));
  const Status status = ask<Unit>(
      lock, [&](auto done) { make(path, std::move(done)); }, [](auto&) {});
  if (!status && status.error().kind != ErrorKind::kFailed) return Errno{EIO};
  if (!status) return Errno{refusal(lock, EACCES, {.name = name})};
  const Outcome<Unit> renamed = renameLocked(lock, elsewhere, made, directory, name);
  if (renamed) return renamed;
  const Outcome<Unit> removed = removeName(lock, elsewhere, made, isDir);
  if (!removed && removed.error().value != ENOENT) {
    report("'" + name + "' could not be made; it is called '" + path + "' on the disk");
  }
  return renamed;
}

Outcome<NodeEntry> Drive::makeDirectory(NodeId directory, std::string_view name,
                                        std::uint32_t mode) {
  Lock lock = lockNames();
  if (isPathTooLong(directory, name)) return Errno{ENAMETOOLONG};
  const Outcome<Node*> place = directoryNode(directory);
  if (!place) return place.error();
  const std::string key = spelling(**place, name);
  const Presence seen = look(lock, directory, key);
  if (!seen.isAbsent()) return Errno{seen.isPresent() ? EEXIST : EIO};
  waitForNames(lock);
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  const Make make = [this, mode](const std::string& path, Callback<Unit> done) {
    mDisk.makeDir(path, static_cast<std::uint16_t>(mode & 07777U), std::move(done));
  };
  const std::string path = joinPath(*mTree.path(**parent), key);
  const Outcome<Unit> made = hasBackslash(path) ? makeElsewhere(lock, directory, key, make, true)
                                                : makeHere(lock, directory, key, make);
  if (!made) return made.error();
  waitForNames(lock);
  if (const auto still = directoryNode(directory); !still) return still.error();
  if ((mode & S_IWOTH) != 0) giveMode(lock, directory, key, mode);  // see `create`
  const Outcome<NodeEntry> entry = enterByName(directory, key);
  if (!entry) return entry.error();
  Node& node = *mTree.find(entry->node);
  if (!node.directory) {
    --node.references;
    mTree.releaseIfUnused(&node);
    return Errno{EIO};
  }
  const Directory& above = *node.parent->directory;
  Directory& fresh = *node.directory;
  fresh.complete = true;
  fresh.lifetime = mOptions.attributeTimeout;
  fresh.confirmed = fresh.listed = Clock::now();
  fresh.self = entry->attributes;
  fresh.parent = above.self;
  fresh.dots = above.dots;
  // It took this directory, so it takes files.
  if ((fresh.self.st_mode & S_IWUSR) != 0) fresh.lastCreation = fresh.confirmed;
  fresh.creationRights = rightsOf(fresh.self);
  return entry;
}

Outcome<NodeEntry> Drive::link(NodeId existing, NodeId directory, std::string_view name) {
  Lock lock = lockNames();
  if (isPathTooLong(directory, name)) return Errno{ENAMETOOLONG};
  const Outcome<Node*> place = directoryNode(directory);
  if (!place) return place.error();
  const std::string key = spelling(**place, name);
  const Presence seen = look(lock, directory, key);
  if (!seen.isAbsent()) return Errno{seen.isPresent() ? EEXIST : EIO};
  const Outcome<Unit> settled = settle(lock, existing, false);
  if (!settled) return settled.error();
  constexpr int kMaxAttempts = 10;  // when the link is lost each time
  for (int attempt = 1;; ++attempt) {
    const Outcome<bool> linked = linkOnce(lock, existing, directory, key);
    if (!linked) return linked.error();
    if (*linked) break;
    if (attempt == kMaxAttempts) return Errno{EIO};
  }
  return enterByName(directory, key);
}

/// False: it was lost on the way and is not there.
Outcome<bool> Drive::linkOnce(Lock& lock, NodeId existing, NodeId directory,
                              const std::string& key) {
  waitForNames(lock);
  const Outcome<Node*> parent = directoryNode(directory);
  if (!parent) return parent.error();
  Node* node = mTree.find(existing);
  const std::optional<std::string> from = node == nullptr ? std::nullopt : mTree.path(*node);
  if (!from || node->place == nullptr) return Errno{ESTALE};
  const std::string to = joinPath(*mTree.path(**parent), key);
  const NodeId oldDirectory = node->parent->id;
  const std::string oldName = node->place->first;
  const udisk_stat attributes = node->place->second.attributes;
  const std::uint64_t inode = attributes.st_ino;
  Status linked = Unit{};
  std::uint64_t made = 0;
  const std::uint64_t epoch = ++mLinkEpoch;
  Burst burst(*this);
  burst.add<Unit>([&](auto done) { mDisk.link(*from, to, std::move(done)); },
                  [&linked](Status& status) { linked = status; });
  burst.queryFile(*from, oldDirectory, oldName);
  burst.add<udisk_stat>([&](auto done) { mDisk.attributes(to, std::move(done)); },
                        [this, directory, epoch, &key, &made](Result<udisk_stat>& result) {
                          learn(directory, key, result, epoch);
                          if (result) made = result->st_ino;
                        });
  burst.queryDirectory(directory);
  burst.wait(lock);
  if (!linked && linked.error().kind == ErrorKind::kFailed) {
    if (isElsewhere(attributes, directory)) return Errno{EXDEV};
    return Errno{refusal(lock, EPERM, {.name = key})};
  }
  // Of a link that was lost on the way, the look behind it tells.
  if (!linked && made == 0) return false;
  if (made != inode) return Errno{EIO};
  return true;
}

}  // namespace zor::client
