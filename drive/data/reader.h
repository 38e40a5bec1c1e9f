// How one open file is read: out of a batch of small files, or with readahead.
#pragma once

#include <cstdint>
#include <memory>

#include "drive/data/read_ahead.h"
#include "drive/data/small_files.h"
#include "drive/data/write_back.h"

namespace zor::client {

/// What the readers of a drive share.
struct ReadResources {
  HostAccess& host;
  WriteBack& writeBack;
  ReadWindow& window;
  ReadCounters& counters;
  SmallFiles* smallFiles;  ///< null when the host serves no batches
};

/// All members are to be called with the mutex held, and release it while they wait.
class Reader {
 public:
  Reader(ReadResources& shared, NodeId node);

  /// To be called before each read, with what is known of the file. True when it has waited,
  /// for a batch of small files or a rename, and the file may be another by now.
  bool prefetch(const Node& node, std::int64_t offset, std::int64_t length);

  /// Less than `size` bytes, or EIO, when the file is not what it seems to be: see ReadAhead.
  /// `offset + size` is not beyond `length`.
  Outcome<ReadParts> read(const Node& node, std::int64_t offset, std::uint32_t size,
                          std::int64_t length);

  /// Later reads ask again: the file has changed.
  void invalidate() { mAhead.drop(); }

 private:
  class Requests;

  ReadResources& mShared;
  ReadAhead mAhead;
  bool mBegun = false;
  ContentStamp mStamp;        ///< of the contents that mAhead may hold
  std::uint64_t mWrites = 0;  ///< of the file, then
  std::uint64_t mEpoch = 0;   ///< of its other names, then
  ContentStamp mSmallStamp;   ///< of what is in mSmall
  std::shared_ptr<const SmallFile> mSmall;
};

}  // namespace zor::client
