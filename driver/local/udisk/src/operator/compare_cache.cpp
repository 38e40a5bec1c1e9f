// Whether a peer's cached listing still describes the directory.
#include "compare_cache.h"

#include <limits>
#include <unordered_map>
#include <vector>

#include "file_manager_linux/log_text.h"
#include "morvel_log.h"
#include "protocol/disk_records.h"
#include "udisk_operator.h"

namespace zor {
namespace {

constexpr std::size_t kMaxNameLength = 1024;  // with its terminator
constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

// The part of an entry that takes part in the comparison.
struct ComparedEntry {
  std::string_view name;  // points into the listing
  std::int64_t size;
  std::int64_t mtimeSeconds;

  bool sameContents(const ComparedEntry& other) const noexcept {
    return size == other.size && mtimeSeconds == other.mtimeSeconds;
  }
};

// The current entries by name. Those of the same name form a chain in the
// order of the listing.
class NameIndex {
 public:
  explicit NameIndex(const std::vector<ComparedEntry>& entries) : mNext(entries.size()) {
    mFirst.reserve(entries.size());
    for (auto at = static_cast<std::uint32_t>(entries.size()); at-- > 0;) {
      const auto [place, isNew] = mFirst.try_emplace(entries[at].name, at);
      mNext[at] = isNew ? kNone : place->second;
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

// REQUIRES: `listing` holds `count` well-formed entries.
std::vector<ComparedEntry> entriesOf(const unsigned char* listing, int count) {
  constexpr std::size_t kFixed = wire::wireSize<wire::DirEntryRecord>();
  std::vector<ComparedEntry> entries;
  entries.reserve(static_cast<std::size_t>(count));
  for (const auto* at = reinterpret_cast<const std::byte*>(listing); count > 0; --count) {
    wire::DirEntryRecord record{};
    wire::Cursor(wire::Bytes(at, kFixed)).get(record);
    const auto* name = reinterpret_cast<const char*>(at + kFixed);
    entries.push_back({{name, record.name_length - std::size_t{1}},
                       record.attributes.st_size,
                       record.attributes.st_mtim.tv_sec});
    at += kFixed + record.name_length;
  }
  return entries;
}

}  // namespace

bool holdsEntries(wire::Bytes listing, std::size_t count) noexcept {
  wire::ListingReader reader(listing);
  wire::DirEntry entry{};
  for (; count > 0; --count) {
    if (!reader.next(entry) || entry.name.size() >= kMaxNameLength) return false;
  }
  return true;
}

bool UDiskOperator::compare_cache(int cachedCount, int currentCount, unsigned char* cached,
                                  unsigned char* current) {
  MORVEL_DEBUG(kLogFrequent, "cache_file_count:%d,file_count:%d", cachedCount, currentCount);
  if (cachedCount != currentCount) return false;
  if (cachedCount == 0) return true;
  if (cached == nullptr) return false;
  const std::vector<ComparedEntry> old = entriesOf(cached, cachedCount);
  const std::vector<ComparedEntry> now = entriesOf(current, currentCount);
  const NameIndex index(now);
  std::size_t matches = 0;
  for (const ComparedEntry& was : old) {
    bool found = false;
    for (std::uint32_t at = index.first(was.name); at != kNone; at = index.next(at)) {
      const ComparedEntry& is = now[at];
      if (!is.sameContents(was)) {
        MORVEL_DEBUG(kLogDebug, "not found dirFileName:%s,cacheFileName:%s",
                     LogText(is.name).c_str(), LogText(was.name).c_str());
        return false;
      }
      MORVEL_DEBUG(kLogDebug, "found dirFileName:%s,cacheFileName:%s", LogText(is.name).c_str(),
                   LogText(was.name).c_str());
      ++matches;
      found = true;
      // Names that stand there more than once can no longer add up; only the
      // lines would go on, as many as the square of the entries.
      if (matches > old.size() && !worthLogging(kLogDebug)) return false;
    }
    if (!found) {
      MORVEL_DEBUG(kLogDebug, "found name:%s,not found", LogText(was.name).c_str());
      return false;
    }
  }
  if (matches == old.size()) return true;
  MORVEL_DEBUG(kLogDebug, "add new file");
  return false;
}

}  // namespace zor
