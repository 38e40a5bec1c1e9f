// Disks that take "README" for "readme".
#include <algorithm>

#include "drive/metadata/name_cache.h"

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

std::string NameCache::spelling(const Node& directory, std::string_view name) const {
  const Entries& entries = directory.directory->entries;
  if (mIgnoresCase != true || entries.contains(name)) return std::string(name);
  const auto other = std::find_if(entries.begin(), entries.end(), [name](const auto& place) {
    return !place.second.silly && isSpeltAlike(place.first, name);
  });
  return other == entries.end() ? std::string(name) : other->first;
}

std::optional<std::pair<std::string, std::string>> NameCache::spellingToTry(
    const Node& directory) const {
  if (mIgnoresCase) return std::nullopt;
  const Entries& entries = directory.directory->entries;
  const auto known = std::find_if(entries.begin(), entries.end(), [&](const auto& place) {
    const Entry& entry = place.second;
    return !entry.stale && !entry.pending && entry.attributes.st_ino != 0 &&
           !entries.contains(swapped(place.first));
  });
  if (known == entries.end()) return std::nullopt;
  return std::pair(known->first, swapped(known->first));
}

void NameCache::learnSpelling(const udisk_stat& known, const std::optional<udisk_stat>& other) {
  // Where numbers are made up, each spelling may have one of its own.
  mIgnoresCase = other && (mOptions.lastingInodes ? other->st_ino == known.st_ino
                                                  : other->st_mode == known.st_mode &&
                                                        stampOf(*other) == stampOf(known));
}

}  // namespace zor::client
