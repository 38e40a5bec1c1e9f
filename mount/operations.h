// The kernel's requests as calls of the drive.
//
// They run on libfuse's threads, many at a time. Each replies exactly once, and
// as the last thing that it does.
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

// names.cpp
void handleLookup(fuse_req_t request, fuse_ino_t directory, const char* name);
void handleForget(fuse_req_t request, fuse_ino_t node, std::uint64_t references);
void handleForgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* nodes);
void handleGetAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
void handleSetAttributes(fuse_req_t request, fuse_ino_t node, struct stat* wanted, int which,
                         fuse_file_info* info);
void handleReadLink(fuse_req_t request, fuse_ino_t node);
void handleMakeNode(fuse_req_t request, fuse_ino_t directory, const char* name, mode_t mode,
                    dev_t device);
void handleMakeDirectory(fuse_req_t request, fuse_ino_t directory, const char* name, mode_t mode);
void handleUnlink(fuse_req_t request, fuse_ino_t directory, const char* name);
void handleRemoveDirectory(fuse_req_t request, fuse_ino_t directory, const char* name);
void handleSymlink(fuse_req_t request, const char* target, fuse_ino_t directory, const char* name);
void handleRename(fuse_req_t request, fuse_ino_t from, const char* name, fuse_ino_t to,
                  const char* newName, unsigned flags);
void handleLink(fuse_req_t request, fuse_ino_t node, fuse_ino_t directory, const char* name);
void handleStatfs(fuse_req_t request, fuse_ino_t node);

// files.cpp
void handleCreate(fuse_req_t request, fuse_ino_t directory, const char* name, mode_t mode,
                  fuse_file_info* info);
void handleOpen(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
void handleRead(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                fuse_file_info* info);
void handleWrite(fuse_req_t request, fuse_ino_t node, const char* data, std::size_t size,
                 off_t offset, fuse_file_info* info);
void handleFlush(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
void handleSync(fuse_req_t request, fuse_ino_t node, int dataOnly, fuse_file_info* info);
void handleRelease(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);

// directories.cpp
void handleOpenDirectory(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);
void handleReadDirectory(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                         fuse_file_info* info);
void handleReadDirectoryPlus(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                             fuse_file_info* info);
void handleReleaseDirectory(fuse_req_t request, fuse_ino_t node, fuse_file_info* info);

// Shared by the handlers.

inline MountContext& contextOf(fuse_req_t request) {
  return *static_cast<MountContext*>(fuse_req_userdata(request));
}

inline bool isTooLong(std::string_view name) { return name.size() > 255; }

template <class T>
void replyStatus(fuse_req_t request, const Outcome<T>& outcome) {
  fuse_reply_err(request, outcome ? 0 : outcome.error().value);
}

fuse_entry_param toEntry(const NodeEntry& entry, const OwnershipOverride& shown);

/// Gives the entry's reference back when the kernel does not take it.
void replyEntry(fuse_req_t request, const Outcome<NodeEntry>& entry);

}  // namespace zor::client::mount
