#include <algorithm>
#include <cstring>
#include <utility>

#include "drive/metadata/name_cache.h"

namespace zor::client {

NameCache::NameCache(NameCacheOptions options) : mOptions(std::move(options)) {
  auto root = std::make_unique<Node>();
  root->id = kRootNode;
  root->references = 1;
  root->directory = std::make_unique<Directory>();
  mRoot = root.get();
  mNodes.emplace(kRootNode, std::move(root));
}

Node* NameCache::find(NodeId id) {
  const auto at = mNodes.find(id);
  return at == mNodes.end() ? nullptr : at->second.get();
}

const Node* NameCache::find(NodeId id) const {
  const auto at = mNodes.find(id);
  return at == mNodes.end() ? nullptr : at->second.get();
}

Entries::value_type* NameCache::findPlace(NodeId directory, std::string_view name) {
  Node* node = find(directory);
  if (node == nullptr || !node->directory) return nullptr;
  const auto at = node->directory->entries.find(name);
  return at == node->directory->entries.end() ? nullptr : &*at;
}

Entry* NameCache::findEntry(NodeId directory, std::string_view name) {
  Entries::value_type* place = findPlace(directory, name);
  return place == nullptr ? nullptr : &place->second;
}

Node& NameCache::nodeAt(Node& directory, Entries::value_type& place) {
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

bool NameCache::has(const Node& node) const noexcept {
  const Node* at = &node;
  while (at->parent != nullptr) at = at->parent;
  return at == mRoot;
}

std::optional<std::string> NameCache::path(const Node& node) const {
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

void NameCache::detach(Entry& entry) {
  Node* node = std::exchange(entry.node, nullptr);
  if (node == nullptr) return;
  if (node->open) node->open->lostPath = path(*node).value_or(std::string());
  Node* parent = std::exchange(node->parent, nullptr);
  node->place = nullptr;
  --parent->children;
  releaseIfUnused(node);
}

/// Takes away what a listing does not show; the next entry.
Entries::iterator NameCache::drop(Entries& entries, Entries::iterator at) {
  if (at->second.pending) return std::next(at);
  detach(at->second);
  return entries.erase(at);
}

void NameCache::remove(Node& directory, std::string_view name) {
  Entries& entries = directory.directory->entries;
  const auto at = entries.find(name);
  if (at == entries.end()) return;
  detach(at->second);
  entries.erase(at);
  directory.directory->snapshot = nullptr;
}

void NameCache::keepRemoved(NodeId directory, std::string_view name) {
  const Entry* entry = findEntry(directory, name);
  if (entry == nullptr || entry->node == nullptr) return;
  udisk_stat last = shown(*entry);
  last.st_nlink = isDirectory(last) || last.st_nlink == 0 ? 0 : last.st_nlink - 1;
  entry->node->removed = std::make_unique<udisk_stat>(last);
}

void NameCache::move(NodeId from, std::string_view name, NodeId to, std::string_view newName) {
  Node* source = find(from);
  Node* target = find(to);
  if (source == nullptr || target == nullptr) return;
  Entries& entries = source->directory->entries;
  const auto at = entries.find(name);
  if (at == entries.end() || (source == target && name == newName)) return;
  remove(*target, newName);
  auto taken = entries.extract(at);
  taken.key() = newName;
  // The element keeps its address, so the node's place stays right.
  const auto placed = target->directory->entries.insert(std::move(taken)).position;
  if (Node* node = placed->second.node; node != nullptr) {
    ++target->children;
    node->parent = target;
    --source->children;
  }
  source->directory->snapshot = nullptr;
  target->directory->snapshot = nullptr;
}

void NameCache::releaseIfUnused(Node* node) {
  while (node != nullptr && node != mRoot && node->references == 0 && node->children == 0 &&
         !node->open) {
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

void NameCache::dropUnused(Clock::time_point now) {
  const Clock::time_point listedBefore =
      now - std::max<Clock::duration>(kMaxListingAge, mOptions.lifetime);
  for (auto& [id, node] : mNodes) {
    if (!node->directory) continue;
    Directory& known = *node->directory;
    const bool valid = known.listed >= listedBefore || known.confirmed + known.lifetime > now;
    if (valid || known.load.valid() || known.entries.size() <= node->children) continue;
    mDropped += std::erase_if(known.entries, [&](const auto& place) {
      const Entry& entry = place.second;
      return entry.node == nullptr && !entry.pending && !entry.silly &&
             entry.confirmed < listedBefore;
    });
    known.complete = false;
    known.snapshot = nullptr;
  }
}

std::size_t NameCache::size() const {
  std::size_t size = mNodes.size();
  for (const auto& [id, node] : mNodes) {
    if (node->directory) size += node->directory->entries.size();
  }
  return size;
}

}  // namespace zor::client
