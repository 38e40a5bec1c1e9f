#include "compare_cache.h"

#include <limits>
#include <string>
#include <unordered_map>

#include "morvel_log.h"
#include "protocol/disk_records.h"
#include "udisk_operator.h"

namespace zor {
namespace {

constexpr std::size_t kMaxNameLength = 1024;  // with its terminator
constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

// The current entries by name. Those of the same name form a chain in the
// order of the listing.
class NameIndex {
 public:
  explicit NameIndex(const std::vector<ListingEntries::Entry>& entries) : mNext(entries.size()) {
    mFirst.reserve(entries.size());
    for (auto at = static_cast<std::uint32_t>(entries.size()); at-- > 0;) {
      const auto [place, fresh] = mFirst.try_emplace(entries[at].name, at);
      mNext[at] = fresh ? kNone : place->second;
      place->second = at;
    }
  }

  std::uint32_t first(std::string_view name) const {
    const auto found = mFirst.find(name);
    return found == mFirst.end() ? kNone : found->second;
  }
  std::uint32_t next(std::uint32_t at) const noexcept { return mNext[at]; }

 private:
  std::unordered_map<std::string_view, std::uint32_t> mFirst;
  std::vector<std::uint32_t> mNext;
};

// The bytes of `count` entries that are known to be well-formed.
wire::Bytes extent(const unsigned char* listing, int count) noexcept {
  constexpr std::size_t kFixed = wire::wireSize<wire::DirEntryRecord>();
  const auto* bytes = reinterpret_cast<const std::byte*>(listing);
  std::size_t size = 0;
  for (int i = 0; i < count; ++i) {
    wire::DirEntryRecord record{};
    wire::Cursor(wire::Bytes(bytes + size, kFixed)).get(record);
    size += kFixed + record.name_length;
  }
  return {bytes, size};
}

}  // namespace

std::optional<ListingEntries> ListingEntries::parse(wire::Bytes listing, std::size_t count) {
  constexpr std::size_t kLeast = wire::wireSize<wire::DirEntryRecord>() + 1;
  if (count > listing.size() / kLeast) return std::nullopt;
  ListingEntries entries;
  entries.mEntries.reserve(count);
  wire::ListingReader reader(listing);
  for (wire::DirEntry entry{}; reader.next(entry);) {
    if (entry.name.size() >= kMaxNameLength || entries.mEntries.size() == count) {
      return std::nullopt;
    }
    entries.mEntries.push_back(
        {entry.name, entry.attributes.st_size, entry.attributes.st_mtim.tv_sec});
  }
  if (!reader.complete() || entries.mEntries.size() != count) return std::nullopt;
  return entries;
}

bool sameListing(const ListingEntries& cached, const ListingEntries& current) {
  const std::size_t count = cached.all().size();
  MORVEL_DEBUG(kLogFrequent, "cache_file_count:%d,file_count:%d", static_cast<int>(count),
               static_cast<int>(current.all().size()));
  if (count != current.all().size()) return false;
  const NameIndex index(current.all());
  std::size_t matches = 0;
  for (const ListingEntries::Entry& old : cached.all()) {
    bool found = false;
    for (std::uint32_t at = index.first(old.name); at != kNone; at = index.next(at)) {
      const ListingEntries::Entry& now = current.all()[at];
      if (!now.sameContents(old)) {
        MORVEL_DEBUG(kLogDebug, "not found dirFileName:%s,cacheFileName:%s",
                     std::string(now.name).c_str(), std::string(old.name).c_str());
        return false;
      }
      MORVEL_DEBUG(kLogDebug, "found dirFileName:%s,cacheFileName:%s",
                   std::string(now.name).c_str(), std::string(old.name).c_str());
      ++matches;
      found = true;
      // Names that stand there more than once can no longer add up; only the
      // lines would go on, as many as the square of the entries.
      if (matches > count && !morvelLogEnabled(kLogDebug)) return false;
    }
    if (!found) {
      MORVEL_DEBUG(kLogDebug, "found name:%s,not found", std::string(old.name).c_str());
      return false;
    }
  }
  if (matches == count) return true;
  MORVEL_DEBUG(kLogDebug, "add new file");
  return false;
}

bool UDiskOperator::compare_cache(int cachedCount, int currentCount, unsigned char* cached,
                                  unsigned char* current) {
  const auto old =
      ListingEntries::parse(extent(cached, cachedCount), static_cast<std::size_t>(cachedCount));
  const auto now =
      ListingEntries::parse(extent(current, currentCount), static_cast<std::size_t>(currentCount));
  return old && now && sameListing(*old, *now);
}

}  // namespace zor
