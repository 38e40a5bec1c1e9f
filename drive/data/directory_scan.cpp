#include "drive/data/directory_scan.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace zor::client {

namespace {

// Files in between are empty, large, or not wanted; some programs read with
// several threads, slightly out of order.
constexpr std::size_t kMaxSkipped = 16;
constexpr std::size_t kMaxBack = 4;

}  // namespace

bool DirectoryScan::follows(const DirectorySnapshot& listing, std::string_view name) {
  if (!begun() || name == mLast) return false;
  // A step back in one order may be the very next step in the other.
  const std::size_t byPresent = stepTo(listing, name);
  const ScanOrder present = mOrder;
  mOrder = present == ScanOrder::kByName ? ScanOrder::kByInode : ScanOrder::kByName;
  if (byPresent <= stepTo(listing, name)) mOrder = present;
  return near(listing, name);
}

/// How far ahead of the last file it is; for one behind, more than any.
std::size_t DirectoryScan::stepTo(const DirectorySnapshot& listing, std::string_view name) {
  const auto last = find(listing, mLast);
  const auto next = find(listing, name);
  return last && next && *next > *last ? *next - *last : std::numeric_limits<std::size_t>::max();
}

bool DirectoryScan::near(const DirectorySnapshot& listing, std::string_view name) {
  const auto last = find(listing, mLast);
  const auto next = find(listing, name);
  if (!last || !next) return false;
  return *next <= *last + kMaxSkipped && *last <= *next + kMaxBack;
}

std::optional<std::size_t> DirectoryScan::find(const DirectorySnapshot& listing,
                                               std::string_view name) {
  const auto found = std::lower_bound(
      listing->begin(), listing->end(), name,
      [](const DirectoryItem& item, std::string_view wanted) { return item.name < wanted; });
  if (found == listing->end() || found->name != name) return std::nullopt;
  const auto index = static_cast<std::size_t>(found - listing->begin());
  if (mOrder == ScanOrder::kByName) return index;
  sortByInode(listing);
  return mPositions[index];
}

const DirectoryItem& DirectoryScan::at(const DirectorySnapshot& listing, std::size_t position) {
  if (mOrder == ScanOrder::kByName) return (*listing)[position];
  sortByInode(listing);
  return (*listing)[mSequence[position]];
}

void DirectoryScan::sortByInode(const DirectorySnapshot& listing) {
  if (mSorted == listing) return;
  mSequence.resize(listing->size());
  std::iota(mSequence.begin(), mSequence.end(), 0U);
  std::stable_sort(mSequence.begin(), mSequence.end(), [&](std::uint32_t a, std::uint32_t b) {
    return (*listing)[a].attributes.st_ino < (*listing)[b].attributes.st_ino;
  });
  mPositions.resize(listing->size());
  for (std::uint32_t i = 0; i < mSequence.size(); ++i) mPositions[mSequence[i]] = i;
  mSorted = listing;
}

}  // namespace zor::client
