// Fetching the small files of a directory together when a program walks through
// them.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "drive/data/read_counters.h"
#include "drive/data/read_window.h"
#include "drive/metadata/directory_snapshot.h"
#include "drive/requests/disk_requests.h"

namespace zor::client {

/// The whole contents of a file.
struct SmallFile {
  std::shared_ptr<const void> memory;  ///< keeps `contents` alive
  wire::Bytes contents;
};

inline constexpr std::int64_t kMaxSmallFile = 64 << 10;

/// A bounded cache of files that are likely to be read next. Each is used at
/// most once and only while size and times are those that it was fetched for.
/// Walks are recognised in the order of the names and in the order of the inode
/// numbers, in which some programs open files.
///
/// For hosts that serve batches. All members may be called from any thread but
/// the transport's. Disk, window and counters must outlive the last reply;
/// this object need not.
class SmallFiles {
 public:
  SmallFiles(DiskRequests& disk, ReadWindow& window, ReadCounters& counters);

  /// Forgets what is in flight. No `get` may be waiting.
  ~SmallFiles();

  SmallFiles(const SmallFiles&) = delete;
  SmallFiles& operator=(const SmallFiles&) = delete;

  /// The contents of `name` in a directory, or nothing: the file is to be read in the
  /// ordinary way. `path` is the directory's; it is given back when the requests have been
  /// handed over, before this waits for a reply. To be called once for each opening of a
  /// file, when a program begins to read it at its start. `now` are the attributes as they
  /// are known now, which the listing may not show yet.
  std::shared_ptr<const SmallFile> get(NodeId directory, PathLease path,
                                       const DirectorySnapshot& listing, std::string_view name,
                                       const udisk_stat& now);

  /// Drops what was fetched of a file.
  void forget(NodeId directory, std::string_view name);

  void clear();

 private:
  class State;
  std::shared_ptr<State> mState;
};

}  // namespace zor::client
