// What replies teach.
#include <algorithm>
#include <utility>

#include "drive/metadata/name_cache.h"

namespace zor::client {

namespace {

constexpr std::size_t kMaxName = 255;

/// A check compares whole seconds: a file that was changed this shortly before it was
/// listed may change again without that it shows.
constexpr std::int64_t kRecentSeconds = 3;

constexpr std::chrono::seconds kLongListing{1};

/// FAT counts times in so many seconds.
constexpr std::int64_t kCoarsestTime = 2;

bool changedRecently(const Entries& entries) {
  const std::int64_t now = wallClock().tv_sec;
  return std::any_of(entries.begin(), entries.end(), [now](const auto& place) {
    const std::int64_t modified = place.second.attributes.st_mtim.tv_sec;
    return modified > now - kRecentSeconds && modified < now + kRecentSeconds;
  });
}

}  // namespace

udisk_timespec wallClock() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(now);
  return {seconds.count(), std::chrono::nanoseconds(now - seconds).count()};
}

bool NameCache::fits(const Entry& entry, const udisk_stat& attributes) const {
  return entry.node == nullptr || ((entry.node->directory != nullptr) == isDirectory(attributes) &&
                                   !isReplaced(entry, attributes));
}

/// Whether an open file's name stands for another file now.
bool NameCache::isReplaced(const Entry& entry, const udisk_stat& attributes) const {
  const OpenState* file = entry.node->open.get();
  const std::uint64_t known = entry.attributes.st_ino;
  if (file == nullptr || known == 0 || attributes.st_ino == 0 || known == attributes.st_ino) {
    return false;
  }
  if (mOptions.lastingInodes) return true;
  // The same file may have got another number, and have been changed on the host, too. Its
  // time goes back only by rounding, when the host has forgotten it.
  return attributes.st_mtim.tv_sec + kCoarsestTime < entry.attributes.st_mtim.tv_sec;
}

void NameCache::learn(NodeId directory, const std::string& name, const Result<udisk_stat>& result,
                      std::uint64_t epoch) {
  Node* parent = find(directory);
  if (parent == nullptr || !parent->directory) return;
  Entries& entries = parent->directory->entries;
  auto at = entries.find(name);
  if (!result) {
    // Gone, or the disk fails: the next query shows which.
    if (result.error().kind == ErrorKind::kFailed && at != entries.end()) at->second.stale = true;
    return;
  }
  if (at != entries.end() && ((((at->second.attributes.st_mode ^ result->st_mode) & S_IFMT) != 0 &&
                               at->second.attributes.st_mode != 0) ||
                              !fits(at->second, *result))) {
    remove(*parent, name);
    at = entries.end();
  }
  if (at == entries.end()) {
    at = entries.emplace(name, Entry{}).first;
    parent->directory->snapshot = nullptr;
  }
  Entry& entry = at->second;
  // A reader changes only the access time, and its scan goes on in the same snapshot.
  if (stampOf(entry.attributes) != stampOf(*result) ||
      entry.attributes.st_mode != result->st_mode) {
    parent->directory->snapshot = nullptr;
  }
  entry.attributes = *result;
  entry.confirmed = now();
  entry.stale = false;
  entry.unreadable = false;
  entry.linkEpoch = epoch;
  if (entry.node == nullptr) return;
  if (entry.node->directory) {
    entry.node->directory->self = *result;
    entry.node->directory->selfConfirmed = entry.confirmed;
  }
  if (OpenState* open = entry.node->open.get(); open != nullptr && !open->isUnacknowledged()) {
    open->end = 0;
    open->dirty = false;
  }
}

void NameCache::learnSelf(NodeId directory, const Result<udisk_stat>& result) {
  Node* node = find(directory);
  if (node == nullptr || !node->directory || !result || !isDirectory(*result)) return;
  if (node->place != nullptr && node->parent != nullptr && node->entry().attributes != *result) {
    node->parent->directory->snapshot = nullptr;
  }
  replaceSelf(*node, *result);
}

void NameCache::replaceSelf(Node& node, const udisk_stat& attributes) {
  node.directory->self = attributes;
  node.directory->selfConfirmed = now();
  if (node.place == nullptr) return;
  Entry& own = node.entry();
  own.attributes = attributes;
  own.confirmed = node.directory->selfConfirmed;
  own.stale = false;
}

void NameCache::learnListing(Node& directory, const Listing& listing, std::uint64_t epoch) {
  std::vector<const wire::DirEntry*> fresh;
  fresh.reserve(listing.entries().size());
  Directory& known = *directory.directory;
  known.dots = false;
  known.self.st_mode = 0;
  known.parent.st_mode = 0;
  for (const wire::DirEntry& entry : listing.entries()) {
    if (entry.name == ".") {
      if (isDirectory(entry.attributes)) known.self = entry.attributes;
    } else if (entry.name == "..") {
      known.parent = entry.attributes;
      known.dots = true;
    } else if (entry.name.size() <= kMaxName) {
      fresh.push_back(&entry);
    }
  }
  std::sort(fresh.begin(), fresh.end(), [](const wire::DirEntry* one, const wire::DirEntry* other) {
    return one->name < other->name;
  });
  const auto same = [](const wire::DirEntry* one, const wire::DirEntry* other) {
    return one->name == other->name;
  };
  fresh.erase(std::unique(fresh.begin(), fresh.end(), same), fresh.end());
  Entries& entries = known.entries;
  auto at = entries.begin();
  for (const wire::DirEntry* entry : fresh) {
    while (at != entries.end() && at->first < entry->name) at = drop(entries, at);
    if (at == entries.end() || at->first != entry->name) {
      at = entries.emplace_hint(at, entry->name, Entry{});
    } else if (entry->attributes.st_mode == 0) {
      // The disk fails there, or somebody is just removing it: what is known may still hold.
      at->second.stale = at->second.unreadable = true;
      ++at;
      continue;
    } else if (((at->second.attributes.st_mode ^ entry->attributes.st_mode) & S_IFMT) != 0 ||
               !fits(at->second, entry->attributes)) {
      detach(at->second);
    }
    Entry& place = at->second;
    place.attributes = entry->attributes;
    place.stale = place.unreadable = entry->attributes.st_mode == 0;
    place.linkEpoch = epoch;
    ++at;
  }
  while (at != entries.end()) at = drop(entries, at);
  known.complete = true;
  known.listed = now();
  known.recent = changedRecently(entries);
  known.snapshot = nullptr;
  known.confirmed = known.listed;
  known.singles = 0;
  if (known.self.st_mode != 0) replaceSelf(directory, known.self);
}

void NameCache::confirm(Node& directory) {
  Directory& known = *directory.directory;
  known.confirmed = known.selfConfirmed = now();
  known.singles = 0;
}

void NameCache::setLifetime(Directory& directory, Clock::duration taken) const {
  // What takes long to learn is valid for as long, or a scan would never end.
  directory.lifetime = taken < kLongListing ? mOptions.lifetime
                                            : std::max<Clock::duration>(mOptions.lifetime, taken);
}

void NameCache::learnNewDirectory(Node& node) {
  const Directory& above = *node.parent->directory;
  Directory& fresh = *node.directory;
  fresh.complete = true;
  fresh.lifetime = mOptions.lifetime;
  fresh.confirmed = fresh.listed = now();
  fresh.self = node.entry().attributes;
  fresh.parent = above.self;
  fresh.dots = above.dots;
  // It took this directory, so it takes files.
  if ((fresh.self.st_mode & S_IWUSR) != 0) fresh.lastCreation = fresh.confirmed;
  fresh.creationRights = rightsOf(fresh.self);
}

Node& NameCache::addPending(Node& directory, const std::string& name, std::uint32_t mode) {
  Entry fresh;
  fresh.attributes.st_mode = S_IFREG | (mode & 07777U);
  fresh.attributes.st_uid = directory.directory->self.st_uid;
  fresh.attributes.st_gid = directory.directory->self.st_gid;
  fresh.attributes.st_nlink = 1;
  fresh.stale = true;
  fresh.pending = true;
  remove(directory, name);
  directory.directory->snapshot = nullptr;
  return nodeAt(directory, *directory.directory->entries.emplace(name, fresh).first);
}

}  // namespace zor::client
