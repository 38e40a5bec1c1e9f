// The entries of a directory as the host listed them.
#pragma once

#include <cstdint>
#include <vector>

#include "client/buffer.h"
#include "client/result.h"
#include "protocol/disk_records.h"

namespace zor::client {

class Listing {
 public:
  Listing() = default;
  Listing(Listing&&) noexcept = default;
  Listing& operator=(Listing&&) noexcept = default;

  /// Checks and keeps the listing that begins at `offset` of `storage`.
  /// `entryCount` is its announced count, of which 16 bits travel.
  static Result<Listing> parse(Buffer storage, std::size_t offset, std::uint16_t entryCount);

  /// In the host's order, "." and ".." included as far as the host's file
  /// system has them. Every name is a single path component. An entry whose
  /// attributes the host could not read has a `st_mode` of 0. The names belong
  /// to this object and stay valid when it is moved.
  const std::vector<wire::DirEntry>& entries() const noexcept { return mEntries; }

  /// As it travelled, for asking later whether the directory has changed.
  wire::Bytes raw() const noexcept { return mStorage.bytes().subspan(mOffset); }
  std::uint16_t rawCount() const noexcept { return static_cast<std::uint16_t>(mEntries.size()); }

 private:
  Buffer mStorage;
  std::size_t mOffset = 0;
  std::vector<wire::DirEntry> mEntries;
};

inline bool isDotEntry(std::string_view name) { return name == "." || name == ".."; }

}  // namespace zor::client
