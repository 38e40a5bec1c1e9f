// A file that a program has open.
#pragma once

#include <memory>
#include <mutex>

#include "drive/node.h"
#include "drive/read_ahead.h"
#include "drive/small_files.h"

namespace zor::client {

class Drive;

/// Belongs to the drive, from `Drive::open` to `Drive::release`. Users only
/// pass it on.
class OpenFile {
 private:
  friend class Drive;

  /// How read-ahead reads this file under whatever name it has.
  class Requests;

  OpenFile(Drive& drive, NodeId node, bool writable, std::uint64_t failures);

  const NodeId mNode;
  const bool mWritable;
  std::shared_ptr<FileRequests> mRequests;
  ReadAhead mAhead;

  // Guarded by the drive's mutex.
  std::uint64_t mToldFailures;    ///< of the file's, that the program was told of
  bool mKnowsEnd = false;         ///< the host was asked where to append
  bool mRead = false;             ///< the program has begun to read
  ContentStamp mReadStamp;        ///< of the contents that mAhead may hold
  std::uint64_t mReadWrites = 0;  ///< the file's writes then
  std::uint64_t mReadEpoch = 0;   ///< of the drive, then
  ContentStamp mSmallStamp;       ///< of what is in mSmall
  std::shared_ptr<const SmallFile> mSmall;
};

}  // namespace zor::client
