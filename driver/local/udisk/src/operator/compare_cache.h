// The comparison of a peer's cached listing with the directory of now.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "protocol/codec.h"

namespace zor {

/// The part of a listing that takes part in the comparison. The names point
/// into the listing's bytes.
class ListingEntries {
 public:
  struct Entry {
    std::string_view name;
    std::int64_t size;
    std::int64_t mtimeSeconds;

    bool sameContents(const Entry& other) const noexcept {
      return size == other.size && mtimeSeconds == other.mtimeSeconds;
    }
  };

  /// Nothing when the bytes are not exactly `count` well-formed entries.
  static std::optional<ListingEntries> parse(wire::Bytes listing, std::size_t count);

  const std::vector<Entry>& all() const noexcept { return mEntries; }

 private:
  std::vector<Entry> mEntries;
};

/// Whether `cached` still describes the directory that `current` lists. Takes
/// time in proportion to the entries.
bool sameListing(const ListingEntries& cached, const ListingEntries& current);

}  // namespace zor
