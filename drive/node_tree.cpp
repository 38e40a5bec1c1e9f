#include <algorithm>
#include <cstring>
#include <utility>

#include "drive/node.h"

namespace zor::client {

namespace {

constexpr std::uint32_t kTypeBits = 0170000;

constexpr std::size_t kMaxName = 255;

/// FAT counts times in so many seconds.
constexpr std::int64_t kCoarsestTime = 2;

/// Hosts compare the number of entries in 16 bits, so more never match.
constexpr std::size_t kMaxComparable = 0xffff - 2;

std::byte* encodeEntry(std::byte* at, const udisk_stat& attributes, std::string_view name) {
  at = wire::encodeAt(
      at, wire::DirEntryRecord{attributes, static_cast<std::uint16_t>(name.size() + 1)});
  at = std::copy_n(reinterpret_cast<const std::byte*>(name.data()), name.size(), at);
  *at = std::byte{0};
  return at + 1;
}

}  // namespace

NodeTree::NodeTree(bool lastingInodes) : mLastingInodes(lastingInodes) {
  auto root = std::make_unique<Node>();
  root->id = kRootNode;
  root->references = 1;
  root->directory = std::make_unique<Directory>();
  mRoot = root.get();
  mNodes.emplace(kRootNode, std::move(root));
}

Node* NodeTree::find(NodeId id) {
  const auto at = mNodes.find(id);
  return at == mNodes.end() ? nullptr : at->second.get();
}

const Node* NodeTree::find(NodeId id) const {
  const auto at = mNodes.find(id);
  return at == mNodes.end() ? nullptr : at->second.get();
}

Node& NodeTree::nodeAt(Node& directory, Entries::value_type& place) {
  Entry& entry = place.second;
  if (entry.node == nullptr) {
    auto node = std::make_unique<Node>();
    node->id = ++mLastId;
    node->parent = &directory;
    node->place = &place;
    if (isDirectory(entry.attributes)) node->directory = std::make_unique<Directory>();
    entry.node = node.get();
    ++directory.children;
    mNodes.emplace(mLastId, std::move(node));
  }
  return *entry.node;
}

bool NodeTree::has(const Node& node) const noexcept {
  const Node* at = &node;
  while (at->parent != nullptr) at = at->parent;
  return at == mRoot;
}

std::optional<std::string> NodeTree::path(const Node& node) const {
  if (&node == mRoot) return "/";
  std::size_t length = 0;
  const Node* at = &node;
  for (; at->parent != nullptr; at = at->parent) length += at->place->first.size() + 1;
  if (at != mRoot) return std::nullopt;
  std::string path(length, '/');
  for (at = &node; at != mRoot; at = at->parent) {
    const std::string& name = at->place->first;
    length -= name.size();
    std::memcpy(path.data() + length, name.data(), name.size());
    --length;
  }
  return path;
}

bool NodeTree::fits(const Entry& entry, const udisk_stat& attributes) const {
  return entry.node == nullptr || ((entry.node->directory != nullptr) == isDirectory(attributes) &&
                                   !isReplaced(entry, attributes));
}

/// Whether an open file's name stands for another file now.
bool NodeTree::isReplaced(const Entry& entry, const udisk_stat& attributes) const {
  const FileState* file = entry.node->file.get();
  const std::uint64_t known = entry.attributes.st_ino;
  if (file == nullptr || known == 0 || attributes.st_ino == 0 || known == attributes.st_ino) {
    return false;
  }
  if (mLastingInodes) return true;
  // The same file may have got another number, and have been changed over there, too. Its
  // time goes back only by rounding, when the host has forgotten it.
  return attributes.st_mtim.tv_sec + kCoarsestTime < entry.attributes.st_mtim.tv_sec;
}

void NodeTree::detach(Entry& entry) {
  Node* node = std::exchange(entry.node, nullptr);
  if (node == nullptr) return;
  if (node->file) node->file->lostPath = path(*node).value_or(std::string());
  Node* parent = std::exchange(node->parent, nullptr);
  node->place = nullptr;
  --parent->children;
  releaseIfUnused(node);
}

/// Takes away what a listing does not show; the next entry.
Entries::iterator NodeTree::drop(Entries& entries, Entries::iterator at) {
  if (at->second.changing) return std::next(at);
  detach(at->second);
  return entries.erase(at);
}

void NodeTree::remove(Node& directory, std::string_view name) {
  Entries& entries = directory.directory->entries;
  const auto at = entries.find(name);
  if (at == entries.end()) return;
  detach(at->second);
  entries.erase(at);
  directory.directory->snapshot = nullptr;
}

void NodeTree::move(Node& from, std::string_view name, Node& to, std::string_view newName) {
  Entries& source = from.directory->entries;
  const auto at = source.find(name);
  if (at == source.end()) return;
  Entries& target = to.directory->entries;
  if (const auto replaced = target.find(newName); replaced != target.end()) {
    if (replaced == at) return;
    remove(to, newName);
  }
  auto taken = source.extract(at);
  taken.key() = newName;
  // The element keeps its address, so the node's place stays right.
  const auto placed = target.insert(std::move(taken)).position;
  if (Node* node = placed->second.node; node != nullptr) {
    ++to.children;
    node->parent = &to;
    --from.children;
  }
  from.directory->snapshot = nullptr;
  to.directory->snapshot = nullptr;
}

void NodeTree::releaseIfUnused(Node* node) {
  while (node != nullptr && node != mRoot && node->references == 0 && node->children == 0 &&
         !node->file) {
    Node* parent = node->parent;
    if (parent != nullptr) {
      node->place->second.node = nullptr;
      --parent->children;
    }
    mDropped += 1 + (node->directory ? node->directory->entries.size() : 0);
    mNodes.erase(node->id);
    node = parent;
  }
}

void NodeTree::dropUnused(Clock::time_point now, Clock::time_point listedBefore) {
  for (auto& [id, node] : mNodes) {
    if (!node->directory) continue;
    Directory& known = *node->directory;
    const bool counts = known.listed >= listedBefore || known.confirmed + known.lifetime > now;
    if (counts || known.load.valid() || known.entries.size() <= node->children) continue;
    mDropped += std::erase_if(known.entries, [&](const auto& place) {
      const Entry& entry = place.second;
      return entry.node == nullptr && !entry.changing && !entry.hidden &&
             entry.confirmed < listedBefore;
    });
    known.complete = false;
    known.snapshot = nullptr;
  }
}

std::size_t NodeTree::size() const {
  std::size_t size = mNodes.size();
  for (const auto& [id, node] : mNodes) {
    if (node->directory) size += node->directory->entries.size();
  }
  return size;
}

void NodeTree::merge(Node& directory, const Listing& listing, Clock::time_point now,
                     std::uint64_t epoch) {
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
    } else if (((at->second.attributes.st_mode ^ entry->attributes.st_mode) & kTypeBits) != 0 ||
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
  known.confirmed = now;
  known.listed = now;
  known.singles = 0;
  known.snapshot = nullptr;
  if (known.self.st_mode != 0) {
    known.selfConfirmed = now;
    if (directory.place != nullptr) {
      Entry& own = directory.place->second;
      own.attributes = known.self;
      own.confirmed = now;
      own.stale = false;
    }
  }
}

udisk_timespec wallClock() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(now);
  return {seconds.count(), std::chrono::nanoseconds(now - seconds).count()};
}

const DirectorySnapshot& snapshotOf(Directory& directory) {
  if (directory.snapshot == nullptr) {
    auto items = std::make_shared<std::vector<DirectoryItem>>();
    items->reserve(directory.entries.size());
    for (const auto& [name, entry] : directory.entries) {
      // Of what is just being made, nobody can expect to see it yet.
      const bool seen = !entry.changing || entry.attributes.st_ino != 0;
      if (!entry.hidden && seen) items->push_back({name, entry.attributes});
    }
    directory.snapshot = std::move(items);
  }
  return directory.snapshot;
}

std::optional<Listing> composeListing(const Directory& directory) {
  if (!directory.dots || directory.entries.size() > kMaxComparable) return std::nullopt;
  constexpr std::size_t kFixed = wire::wireSize<wire::DirEntryRecord>() + 1;
  std::size_t size = 2 * kFixed + 3 + 1;
  for (const auto& [name, entry] : directory.entries) size += kFixed + name.size();
  Buffer raw(size);
  std::byte* at = encodeEntry(raw.data(), directory.self, ".");
  at = encodeEntry(at, directory.parent, "..");
  for (const auto& [name, entry] : directory.entries) {
    at = encodeEntry(at, entry.attributes, name);
  }
  *at = std::byte{0};
  Result<Listing> listing =
      Listing::parse(std::move(raw), 0, static_cast<std::uint16_t>(directory.entries.size() + 2));
  if (!listing) return std::nullopt;
  return std::move(*listing);
}

}  // namespace zor::client
