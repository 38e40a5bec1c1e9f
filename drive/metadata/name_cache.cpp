// What is valid, and what programs see of it.
#include "drive/metadata/name_cache.h"

#include <algorithm>

namespace zor::client {

bool NameCache::isValid(const Directory& directory) const {
  return directory.complete && now() - directory.confirmed < directory.lifetime;
}

bool NameCache::isValid(const Node& directory, const Entry& entry) const {
  return validity(directory, entry).count() > 0;
}

bool NameCache::isStale(const Entry& entry) const {
  if (entry.stale) return true;
  // Another name of the file may have been used to change it.
  return !isDirectory(entry.attributes) && entry.attributes.st_nlink > 1 &&
         entry.linkEpoch != mLinkEpoch;
}

std::chrono::nanoseconds NameCache::validity(const Node& directory, const Entry& entry) const {
  if (entry.attributes.st_nlink <= 1 && entry.node != nullptr && entry.node->open &&
      entry.node->open->dirty) {
    return std::chrono::milliseconds(1);  // nobody knows better than we do
  }
  if (isStale(entry)) return {};
  const Directory& known = *directory.directory;
  Clock::time_point until = entry.confirmed + mOptions.lifetime;
  if (known.complete) until = std::max(until, known.confirmed + known.lifetime);
  if (entry.node != nullptr && entry.node->directory) {
    until = std::max(until, entry.node->directory->selfConfirmed + mOptions.lifetime);
  }
  return until - now();
}

std::chrono::nanoseconds NameCache::kernelValidity(const Node& directory,
                                                   const Entry& entry) const {
  // The kernel does not know that two of its files are one. And of what is on its way to
  // the host, the host will report what came of it.
  if (!isDirectory(entry.attributes) && entry.attributes.st_nlink > 1) return {};
  if (entry.node != nullptr && entry.node->open && entry.node->open->dirty) return {};
  return std::max(std::chrono::nanoseconds(0), validity(directory, entry));
}

std::chrono::nanoseconds NameCache::absenceValidity(const Directory& directory) const {
  return std::max(std::chrono::nanoseconds(0),
                  std::chrono::nanoseconds(directory.confirmed + directory.lifetime - now()));
}

std::chrono::nanoseconds NameCache::selfValidity(const Directory& directory) const {
  if (directory.self.st_mode == 0) return {};
  return std::max(std::chrono::nanoseconds(0),
                  std::chrono::nanoseconds(directory.selfConfirmed + mOptions.lifetime - now()));
}

bool NameCache::canBeChecked(const Directory& directory) const {
  return directory.complete && !directory.recent && now() - directory.listed < kMaxListingAge;
}

udisk_stat NameCache::shown(const Entry& entry) const {
  udisk_stat attributes = entry.attributes;
  attributes.st_nlink = std::max<std::uint64_t>(attributes.st_nlink, 1);
  if (attributes.st_nlink > 1 || entry.silly) {
    attributes.st_nlink -= std::min<std::uint64_t>(attributes.st_nlink, sillyNames(entry));
  }
  if (entry.node == nullptr || !entry.node->open) return attributes;
  const OpenState& open = *entry.node->open;
  if (open.deferredMode) {
    attributes.st_mode = (attributes.st_mode & S_IFMT) | *open.deferredMode;
  }
  // What was written under one of several names is known from the host, once it was asked.
  if (open.dirty && (entry.attributes.st_nlink <= 1 || isStale(entry))) {
    attributes.st_size = std::max(attributes.st_size, open.end);
    attributes.st_mtim = open.lastWrite;
    attributes.st_ctim = open.lastWrite;
  }
  return attributes;
}

/// How many names of the same file are silly ones. Those that the host has removed as well
/// are no longer in the tree.
std::uint64_t NameCache::sillyNames(const Entry& entry) const {
  if (entry.attributes.st_nlink <= 1) return 1;
  std::uint64_t count = 0;
  for (const auto& [directory, name] : mSillyPlaces) {
    const Entry* silly = const_cast<NameCache*>(this)->findSilly(directory, name);
    if (silly != nullptr && silly->attributes.st_ino == entry.attributes.st_ino) ++count;
  }
  return count;
}

Entry* NameCache::findSilly(NodeId directory, const std::string& name) {
  Entry* entry = findEntry(directory, name);
  return entry != nullptr && entry->silly ? entry : nullptr;
}

Entry* NameCache::markSilly(NodeId directory, const std::string& name) {
  Entry* entry = findEntry(directory, name);
  if (entry == nullptr) return nullptr;
  entry->silly = true;
  find(directory)->directory->snapshot = nullptr;
  std::erase_if(mSillyPlaces,
                [&](const auto& place) { return findSilly(place.first, place.second) == nullptr; });
  mSillyPlaces.emplace_back(directory, name);
  return entry;
}

}  // namespace zor::client
