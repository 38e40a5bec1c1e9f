// What was written and did not arrive.
#include <algorithm>
#include <cstddef>

#include "drive/drive.h"
#include "drive/open_file.h"

namespace zor::client {

void Drive::writeFailed(Node& node, const std::string& path) {
  ++node.file->failures;
  ++mCounters.failedWrites;
  const std::string& name = node.file->lostPath.empty() ? path : node.file->lostPath;
  if (std::find(mLost.begin(), mLost.end(), name) == mLost.end()) mLost.push_back(name);
  mGathered.notify_one();  // the flusher tells of it
}

/// An open file that is still to tell of a failure. A close does not count as having
/// told it: it may be the one of a child process, which nobody looks at.
Outcome<Unit> Drive::untoldFailure(Lock& lock, const OpenFile& file) {
  const Node& node = *mTree.find(file.mNode);
  if (node.file->failures == file.mToldFailures) return Unit{};
  if (!mTree.has(node) && !node.file->neverMade) return Errno{ESTALE};
  const Attempt attempt{{}, node.file->failedBytes, node.file->failedEnd, lengthOf(node)};
  return Errno{refusal(lock, EIO, attempt)};
}

/// To a program that looks at what it is told.
Outcome<Unit> Drive::tellFailure(Lock& lock, OpenFile& file) {
  const std::uint64_t failures = mTree.find(file.mNode)->file->failures;
  Outcome<Unit> failure = untoldFailure(lock, file);
  file.mToldFailures = failures;
  return failure;
}

void Drive::tellOfLosses(Lock& lock) {
  const std::vector<std::string> fresh(mLost.begin() + static_cast<std::ptrdiff_t>(mLossesTold),
                                       mLost.end());
  mLossesTold = mLost.size();
  if (fresh.empty() || !mOptions.lost) return;
  lock.unlock();
  for (const std::string& path : fresh) mOptions.lost(path);
  lock.lock();
}

std::vector<std::string> Drive::lost() {
  const std::lock_guard lock(mMutex);
  return mLost;
}

}  // namespace zor::client
