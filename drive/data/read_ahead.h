// Reading one open file, ahead of the program where it reads in order.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "client/disk.h"
#include "drive/data/read_counters.h"
#include "drive/data/read_window.h"
#include "drive/requests/outcome.h"

namespace zor::client {

/// The reads of one file, whatever its name is at the moment.
class FileRequests {
 public:
  virtual ~FileRequests() = default;

  /// Starts a read as `Disk::read` does. Called from any thread, from
  /// completions too, with no lock held; must not block for an reply.
  virtual void read(std::int64_t offset, std::uint32_t size, Callback<FileData> done) = 0;
};

/// Contents in memory that others may use at the same time.
struct ReadPart {
  std::shared_ptr<const void> memory;  ///< keeps `bytes` alive
  wire::Bytes bytes;                   ///< never empty
};
using ReadParts = std::vector<ReadPart>;

/// All members may be called from any thread but the transport's; `read` from
/// many at a time. What the window and the counters refer to must outlive the
/// last reply; this object and `file` need not.
class ReadAhead {
 public:
  ReadAhead(std::shared_ptr<FileRequests> file, ReadWindow& window, ReadCounters& counters);

  /// Forgets what is in flight. No `read` may be waiting.
  ~ReadAhead();

  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  /// Waits for the contents from `offset` on, in order. Less than `size` bytes
  /// at the end of the file (`fileSize`), or when the host gave less: the file
  /// has shrunk, or it could not be read further, and the caller must find out
  /// which before a program sees the end of the file. EIO when there
  /// was no reply, or nothing at all before the end.
  Outcome<ReadParts> read(std::int64_t offset, std::uint32_t size, std::uint64_t fileSize);

  /// Later reads ask again: the file has changed.
  void drop();

 private:
  class State;
  std::shared_ptr<State> mState;
};

}  // namespace zor::client
