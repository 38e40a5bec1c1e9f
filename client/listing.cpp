#include "client/listing.h"

#include <utility>

namespace zor::client {

Result<Listing> Listing::parse(Buffer storage, std::size_t offset, std::uint16_t entryCount) {
  Listing listing;
  listing.mStorage = std::move(storage);
  listing.mOffset = offset;
  wire::DirEntry entry;
  std::size_t count = 0;  // growing step by step would take more memory than the listing itself
  for (wire::ListingReader reader(listing.raw()); reader.next(entry);) ++count;
  listing.mEntries.reserve(count);
  wire::ListingReader reader(listing.raw());
  while (reader.next(entry)) {
    if (entry.name.empty() || entry.name.find('/') != std::string_view::npos) {
      return Error{ErrorKind::kBadReply, "the host listed a name that cannot be one"};
    }
    listing.mEntries.push_back(entry);
  }
  if (!reader.complete() || listing.rawCount() != entryCount) {
    return Error{ErrorKind::kBadReply, "the host sent an inconsistent listing"};
  }
  return listing;
}

}  // namespace zor::client
