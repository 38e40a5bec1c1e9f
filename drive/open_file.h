// A file that a program has open.
#pragma once

#include <cstdint>

#include "drive/data/reader.h"

namespace zor::client {

/// Belongs to the drive, from `Drive::open` to `Drive::release`. Users only pass it on.
class OpenFile {
 private:
  friend class Drive;

  OpenFile(ReadResources& shared, const Node& node, bool writable)
      : mNode(node.id),
        mWritable(writable),
        mReader(shared, node.id),
        mReportedFailures(stateOf(node)->failures) {}

  const NodeId mNode;
  const bool mWritable;

  // Guarded by the drive's mutex.
  Reader mReader;
  std::uint64_t mReportedFailures;  ///< of the file's, that the program knows of
  std::int64_t mSplitAt = -1;       ///< where the rest of the last write(2) may begin
  bool mKnowsEnd = false;           ///< the host was asked where to append
};

}  // namespace zor::client
