// Disks that take "README" for "readme".
#include <algorithm>

#include "client/remote_path.h"
#include "drive/drive.h"

namespace zor::client {

namespace {

bool isLower(char c) { return c >= 'a' && c <= 'z'; }
bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
char lowered(char c) { return isUpper(c) ? static_cast<char>(c - 'A' + 'a') : c; }

bool isSpeltAlike(std::string_view one, std::string_view other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](char a, char b) { return lowered(a) == lowered(b); });
}

/// With capitals for small letters and the other way round.
std::string swapped(std::string name) {
  for (char& c : name) c = isLower(c) ? static_cast<char>(c - 'a' + 'A') : lowered(c);
  return name;
}

}  // namespace

/// The name under which the disk shows the file that it takes `name` for.
std::string Drive::spelling(const Node& directory, std::string_view name) const {
  const Entries& entries = directory.directory->entries;
  if (mAnyCase != true || entries.contains(name)) return std::string(name);
  const auto other = std::find_if(entries.begin(), entries.end(), [name](const auto& place) {
    return !place.second.hidden && isSpeltAlike(place.first, name);
  });
  return other == entries.end() ? std::string(name) : other->first;
}

/// Finds out, once, how the disk takes names. False when nothing was learnt here.
bool Drive::learnSpelling(Lock& lock, NodeId directory) {
  if (mAnyCase) return false;
  const Node& node = *mTree.find(directory);
  const Entries& entries = node.directory->entries;
  const auto known = std::find_if(entries.begin(), entries.end(), [&](const auto& place) {
    const Entry& entry = place.second;
    return !entry.stale && !entry.changing && entry.attributes.st_ino != 0 &&
           !entries.contains(swapped(place.first));
  });
  if (known == entries.end()) return false;
  const udisk_stat attributes = known->second.attributes;
  const std::string path = joinPath(*mTree.path(node), swapped(known->first));
  const Presence other = presenceAt(lock, path);
  waitForNames(lock);
  if (other.isUnknown()) return false;
  // Where numbers are made up, each spelling may have one of its own.
  mAnyCase = other.isPresent() &&
             (mOptions.lastingInodes ? other.attributes().st_ino == attributes.st_ino
                                     : other.attributes().st_mode == attributes.st_mode &&
                                           stampOf(other.attributes()) == stampOf(attributes));
  return true;
}

}  // namespace zor::client
