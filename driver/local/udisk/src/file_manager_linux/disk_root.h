// The mount point of a disk, held open while requests are served, and the
// places below it that remote paths name.
//
// Nothing that goes through these types leaves the mount point: not by
// dot-dot, not by a symbolic link on the disk, not by a magic link, and not in
// a race with a process that renames directories meanwhile. The kernel resolves
// every path in one step from the open mount point (openat2); on a kernel
// without that call the path is walked component by component and symbolic
// links are refused.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <climits>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "log_text.h"
#include "support/unique_fd.h"

namespace zor {

/// Distinguishes a mount point's disk from what shows there once it is gone, and
/// a file from another one that got its name.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity&) const = default;
};

/// A mount point as it was when it was opened.
struct MountIdentity {
  FileIdentity file;
  bool isMountRoot = false;  ///< something is mounted there, as far as the kernel reports it
};

/// The descriptor of one operation, or one that is held for several.
class OpenedFile {
 public:
  OpenedFile() = default;
  explicit OpenedFile(UniqueFd own) noexcept : mOwn(std::move(own)), mFd(mOwn.get()) {}
  explicit OpenedFile(int held) noexcept : mFd(held) {}
  int get() const noexcept { return mFd; }
  explicit operator bool() const noexcept { return mFd >= 0; }

 private:
  UniqueFd mOwn;
  int mFd = -1;
};

/// The file that operations opened last, of one kind of access, so that a stream
/// of them opens it once. Each revalidates its path all the same: what is open
/// is used only for the very file that the path leads to.
class HeldFile {
 public:
  /// The descriptor for the file that `status` describes, or -1: the operation
  /// has to open it itself. Only from the second operation in a row on is `open`
  /// called, for a descriptor to hold.
  template <class Open>
  int find(const struct stat& status, Open open) {
    const FileIdentity wanted{status.st_dev, status.st_ino};
    if (wanted != mIdentity) {
      mFd.reset();
      mIdentity = wanted;
    } else if (!mFd) {
      struct stat opened {};
      mFd = open();
      // A neighbour may have put another one in its place.
      if (mFd && (::fstat(mFd.get(), &opened) != 0 ||
                  FileIdentity{opened.st_dev, opened.st_ino} != wanted)) {
        mFd.reset();
      }
    }
    return mFd.get();
  }
  void forget() noexcept {
    mFd.reset();
    mIdentity = {};
  }

 private:
  FileIdentity mIdentity;
  UniqueFd mFd;
};

/// One thread at a time. Opened for a request, or a few that arrived together,
/// and closed with them: a descriptor that stayed open would keep the disk from
/// being unmounted.
class DiskRoot {
 public:
  /// Opens the directory `mountPoint`, of at most 255 bytes. An empty one is
  /// refused: there is no disk.
  explicit DiskRoot(const char* mountPoint);
  DiskRoot(DiskRoot&&) = default;

  /// 0, or the errno with which everything below this root fails.
  int error() const noexcept { return mError; }
  void refuse(int error) noexcept { mError = error; }

  const MountIdentity& identity() const noexcept { return mIdentity; }
  /// Whether the path still leads here, and through no symbolic link. False on a kernel
  /// that does not report it.
  bool isReachedWithoutLinks() const noexcept;
  int fd() const noexcept { return mFd.get(); }

  std::string_view mountPoint() const noexcept { return {mMountPoint, mMountPointLength}; }
  /// The local path as it is written in log lines: both texts, nothing between.
  LogText localPath(std::string_view remotePath) const noexcept {
    return LogText(mountPoint(), remotePath);
  }
  /// Whether `localPath` of that text names something below the mount point,
  /// rather than a neighbour whose name begins alike; and whether it is short
  /// enough for the system.
  int checkText(std::string_view remotePath) const noexcept;

  /// Opens `path`, relative to the root. Symbolic links are followed as far as
  /// they stay inside (not at all without openat2), the last one unless `flags`
  /// hold O_NOFOLLOW.
  UniqueFd open(const char* path, int flags, mode_t mode = 0) const;
  /// A descriptor for use with the *at calls. It stays valid until the second
  /// next call: two places may be in use at a time.
  int openParent(std::string_view parent);
  /// The file opened last for `accessMode`, O_RDONLY or O_WRONLY.
  HeldFile& held(int accessMode) noexcept { return mHeld[accessMode == O_RDONLY ? 0 : 1]; }
  /// What is open no longer stands for its path.
  void forgetOpened() noexcept;

  /// More operations will follow: it pays to keep directories and files open.
  void expectMore() noexcept { mExpectsMore = true; }
  bool expectsMore() const noexcept { return mExpectsMore; }

  /// Makes every root of the process walk paths as on a kernel without openat2.
  static void forceComponentWalk(bool forced) noexcept;

 private:
  struct Parent {
    std::string path;
    UniqueFd fd;
  };

  UniqueFd walk(const char* path, int flags, mode_t mode) const;

  char mMountPoint[256] = {};
  std::size_t mMountPointLength = 0;
  UniqueFd mFd;
  MountIdentity mIdentity;
  int mError = 0;
  std::array<Parent, 2> mParents;
  std::size_t mNextParent = 0;
  std::array<HeldFile, 2> mHeld;
  bool mExpectsMore = false;
};

/// A place for a file operation: below a `DiskRoot`, or a complete local path
/// that the caller vouches for. Handlers can only make the former from what a
/// peer sent. Lives on the stack of one operation.
class Location {
 public:
  /// `path` must outlive this object.
  explicit Location(const char* localPath) noexcept : mGiven(localPath), mPath(localPath) {}
  /// `root` and the text must outlive this object.
  Location(DiskRoot& root, std::string_view remotePath) noexcept;
  Location(const Location&) = delete;
  Location& operator=(const Location&) = delete;

  /// 0, or the errno that the operation is to fail with.
  int error() const noexcept { return mError; }
  bool confined() const noexcept { return mRoot != nullptr; }
  DiskRoot* root() const noexcept { return mRoot; }
  /// Relative to the root, or the local path.
  const char* path() const noexcept { return mPath; }
  /// As it was given, behind the mount point if there is one.
  LogText localPath() const noexcept;

  /// A name in an open directory. `dirFd` is -1 (and errno set) when there is no
  /// such directory. The name itself may still be a symbolic link: operate on
  /// it without following.
  struct Entry {
    int dirFd;
    const char* name;
    explicit operator bool() const noexcept { return dirFd != -1; }
  };
  Entry entry() const;

  /// Opens what the place leads to, following symbolic links.
  UniqueFd open(int flags, mode_t mode = 0) const;
  /// The attributes of the place itself: a symbolic link is not followed, unless a
  /// trailing slash asks for the directory behind it. 0, or -1 with errno.
  int lstat(struct stat& status) const;

  /// A trailing slash: only a directory will do.
  bool directoryOnly() const noexcept { return mDirectoryOnly; }

 private:
  Entry wholeAsDirectory() const;

  DiskRoot* mRoot = nullptr;
  std::string_view mGiven;
  const char* mPath;
  int mError = 0;
  bool mDirectoryOnly = false;
  char mText[PATH_MAX];  // deliberately not initialised
};

}  // namespace zor
