// The directory that is served, and whether it is still there.
#pragma once

#include <cstdint>
#include <string>
#include <thread>

#include "support/mutex.h"

namespace zor::host {

/// Knows the directory by its identity, not by its path alone: another one that shows at the
/// path later, or a link there, is not the disk. Logs once when the disk is gone, and once when
/// it is back. Holds nothing open. Any thread, but for what is said to be for the start.
class ServedDirectory {
 public:
  /// `path` is absolute and free of links. Throws std::system_error.
  explicit ServedDirectory(std::string path);
  /// Stops watching.
  ~ServedDirectory();
  ServedDirectory(const ServedDirectory&) = delete;
  ServedDirectory& operator=(const ServedDirectory&) = delete;

  const std::string& path() const noexcept { return mPath; }

  /// At the start: this process can reach this mount of the file system only. Otherwise the
  /// same file system mounted again is the same disk, and one that is mounted over a
  /// plain directory is served from then on.
  void confinedToMount() noexcept { mConfined = true; }
  bool isConfined() const noexcept { return mConfined; }
  /// At the start: checks from time to time, on a thread of its own. Throws std::system_error.
  void watch();
  /// Before the host itself takes the disk away.
  void stopWatching();

  /// Whether what shows at the path now is the disk, be it one that was pulled. Takes as
  /// long as the disk does.
  bool isThere();
  /// Whether a directory with these numbers is the disk; the same file system mounted twice
  /// is not told apart.
  bool is(std::uint64_t device, std::uint64_t inode);

 private:
  struct Identity {
    std::uint64_t device = 0, inode = 0, mount = 0;
    bool isMountRoot = false;
  };

  bool identify(Identity& found) const noexcept;
  bool check() REQUIRES(mMutex);

  const std::string mPath;
  bool mConfined = false;
  Mutex mMutex;
  Identity mIdentity GUARDED_BY(mMutex);
  /// Shows that the block device is there; empty when there is none.
  std::string mDevice GUARDED_BY(mMutex);
  bool mThere GUARDED_BY(mMutex) = true;
  bool mStop GUARDED_BY(mMutex) = false;
  Condition mStopping;
  std::thread mThread;
};

}  // namespace zor::host
