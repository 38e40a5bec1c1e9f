// Giving memory back.
#include <malloc.h>

#include "drive/drive.h"

namespace zor::client {

namespace {

/// Dropped names and nodes, some hundred bytes each, for which it is worth to ask the
/// allocator for the memory, which it would keep for this process else.
constexpr std::uint64_t kWorthTrimming = 10000;

}  // namespace

void Drive::dropUnused(Clock::time_point now) {
  {
    const std::lock_guard lock(mMutex);
    mTree.dropUnused(now,
                     now - std::max<Clock::duration>(kListAgainAfter, mOptions.attributeTimeout));
    if (mTree.dropped() - mTrimmed < kWorthTrimming) return;
    mTrimmed = mTree.dropped();
  }
  ::malloc_trim(0);
}

}  // namespace zor::client
