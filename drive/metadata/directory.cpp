#include <algorithm>
#include <utility>

#include "drive/metadata/node.h"

namespace zor::client {

namespace {

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

const DirectorySnapshot& snapshotOf(Directory& directory) {
  if (directory.snapshot == nullptr) {
    auto items = std::make_shared<std::vector<DirectoryItem>>();
    items->reserve(directory.entries.size());
    for (const auto& [name, entry] : directory.entries) {
      // Of what is just being created, nobody can expect to see it yet.
      const bool seen = !entry.pending || entry.attributes.st_ino != 0;
      if (!entry.silly && seen) items->push_back({name, entry.attributes});
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
