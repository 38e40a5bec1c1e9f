// The kernel's requests as calls of the drive.
//
// They run on libfuse's threads, many at a time. A handler returns an error number, or 0
// for success without data, which `operations()` sends as the reply. A handler that has
// replied itself returns kReplied.
#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <string_view>

#include "drive/drive.h"
#include "mount/attributes.h"
#include "mount/fuse.h"
#include "mount/options.h"
#include "support/mutex.h"

namespace zor::client::mount {

/// A directory that a program reads. The kernel sends the reads of one open
/// directory one after another.
struct OpenDirectory {
  DirectorySnapshot items;              ///< since the last read from the beginning
  std::array<std::uint64_t, 2> dots{};  ///< the numbers of "." and ".."
};

/// The state that all requests share; the user data of the session.
class MountContext {
 public:
  /// `options` must outlive this object.
  MountContext(Drive& drive, const MountOptions& options) : mDrive(drive), mOptions(options) {}

  Drive& drive() noexcept { return mDrive; }
  const OwnershipOverride& ownership() const noexcept { return mOptions.ownership; }
  const MountOptions& options() const noexcept { return mOptions; }

  /// To be called before the first request, so that `invalidateAttributes` has an effect.
  void setSession(fuse_session* session) noexcept { mSession = session; }
  /// Invalidates the kernel's attributes of `node`. May be called while a request is
  /// answered: the kernel takes no lock for it.
  void invalidateAttributes(NodeId node) noexcept;

  /// A program whose drive is taken away never closes its directories; they go
  /// with this object.
  OpenDirectory* add(OpenDirectory directory);
  void remove(OpenDirectory* directory);

 private:
  struct StoredDirectory : OpenDirectory {
    std::list<StoredDirectory>::iterator place;
  };

  Drive& mDrive;
  const MountOptions& mOptions;
  fuse_session* mSession = nullptr;
  Mutex mMutex;
  std::list<StoredDirectory> mDirectories GUARDED_BY(mMutex);
};

/// For sessions whose user data is a MountContext.
fuse_lowlevel_ops operations();

inline constexpr int kReplied = -1;

// names.cpp
int handleLookup(fuse_req_t request, fuse_ino_t directory, const char* name);
void handleForget(fuse_req_t request, fuse_ino_t node, std::uint64_t references);
void handleForgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* nodes);
int handleGetAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
int handleSetAttributes(fuse_req_t request, fuse_ino_t node, struct stat* wanted, int which,
                        fuse_file_info* info);
int handleReadLink(fuse_req_t request, fuse_ino_t node);
int handleMakeNode(fuse_req_t request, fuse_ino_t directory, const char* name, mode_t mode,
                   dev_t device);
int handleMakeDirectory(fuse_req_t request, fuse_ino_t directory, const char* name, mode_t mode);
int handleUnlink(fuse_req_t request, fuse_ino_t directory, const char* name);
int handleRemoveDirectory(fuse_req_t request, fuse_ino_t directory, const char* name);
int handleSymlink(fuse_req_t request, const char* target, fuse_ino_t directory, const char* name);
int handleRename(fuse_req_t request, fuse_ino_t from, const char* name, fuse_ino_t to,
                 const char* newName, unsigned flags);
int handleLink(fuse_req_t request, fuse_ino_t node, fuse_ino_t directory, const char* name);
int handleStatfs(fuse_req_t request, fuse_ino_t node);

// files.cpp
int handleCreate(fuse_req_t request, fuse_ino_t directory, const char* name, mode_t mode,
                 fuse_file_info* info);
int handleOpen(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
int handleRead(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
               fuse_file_info* info);
int handleWrite(fuse_req_t request, fuse_ino_t node, const char* data, std::size_t size,
                off_t offset, fuse_file_info* info);
int handleFlush(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
int handleSync(fuse_req_t request, fuse_ino_t node, int dataOnly, fuse_file_info* info);
int handleRelease(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);

// directories.cpp
int handleOpenDirectory(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
int handleReadDirectory(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                        fuse_file_info* info);
int handleReadDirectoryPlus(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                            fuse_file_info* info);
int handleReleaseDirectory(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);

// Shared by the handlers.

inline MountContext& contextOf(fuse_req_t request) {
  return *static_cast<MountContext*>(fuse_req_userdata(request));
}

inline bool isTooLong(std::string_view name) { return name.size() > 255; }

template <class T>
int statusOf(const Outcome<T>& outcome) {
  return outcome ? 0 : outcome.error().value;
}

fuse_entry_param toEntry(const NodeEntry& entry, const OwnershipOverride& shown);

/// Gives the entry's reference back when the kernel does not take it.
int replyEntry(fuse_req_t request, const Outcome<NodeEntry>& entry);

}  // namespace zor::client::mount
