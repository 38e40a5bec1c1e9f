// The directory that a partition is mounted on.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "mount_table.h"

struct UDiskInfo;

namespace zor {

/// Unmounts even what is in use. Nothing is reported.
void unmountLazily(const std::string& directory);

/// A directory below /media, and what this process did with it: nothing else is ever
/// unmounted or removed. It can be copied to another process, which then does so.
class MountDirectory {
 public:
  /// Finds a directory for a partition, named after its label or else after its
  /// device. It is made if nothing has that name. One that exists is used when it
  /// is empty, belongs to this user and nothing is mounted on it; the same
  /// partition, left there by a host that is gone, is unmounted first. Nothing
  /// (a logged error) when neither name can be used.
  static std::optional<MountDirectory> prepare(const UDiskInfo& info);

  const std::string& path() const noexcept { return mPath; }

  /// Runs mount with `source`, this directory and `options`, for as long as the disk takes.
  /// What the program prints is logged.
  CommandResult mount(const std::string& source, const std::vector<std::string>& options);
  /// Whether what mount() mounted lies on top there.
  bool isMounted() const;

  /// Unmounts what mount() mounted, even while it is in use, and removes the
  /// directory. Something else that was mounted there since is left alone.
  void unmount() const;
  /// Removes the directory if prepare() made it and it is empty.
  void remove() const;

 private:
  explicit MountDirectory(std::string path) : mPath(std::move(path)) {}
  bool makeOrCheck(const UDiskInfo& info);
  bool isFree() const;

  std::string mPath;
  bool mMade = false;
  dev_t mDevice = 0;  ///< of the directory itself
  ino_t mInode = 0;
  std::optional<Mount> mMount;
};

}  // namespace zor
