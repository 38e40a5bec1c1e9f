#include "mount/operations.h"

#include <initializer_list>
#include <new>

namespace zor::client::mount {
namespace {

// Requests that the kernel sends ahead of need; fewer than there are threads,
// so that a program's own request finds a free one.
constexpr unsigned kMaxBackground = 32;

/// A handler with its reply; no exception reaches libfuse.
template <auto kHandler>
struct Guarded;

template <class... Arguments, int (*kHandler)(fuse_req_t, Arguments...)>
struct Guarded<kHandler> {
  static void call(fuse_req_t request, Arguments... arguments) noexcept {
    int error = EIO;
    try {
      error = kHandler(request, arguments...);
    } catch (const std::bad_alloc&) {
      error = ENOMEM;
    } catch (...) {
    }
    if (error != kReplied) fuse_reply_err(request, error);
  }
};

template <auto kHandler>
constexpr auto kGuarded = &Guarded<kHandler>::call;

using Capabilities = std::initializer_list<unsigned>;

void want(fuse_conn_info& connection, Capabilities capabilities) {
  for (const unsigned capability : capabilities) {
    connection.want |= connection.capable & capability;
  }
}

void refuse(fuse_conn_info& connection, Capabilities capabilities) {
  for (const unsigned capability : capabilities) connection.want &= ~capability;
}

void initialise(void* userData, fuse_conn_info* connection) {
  want(*connection, {FUSE_CAP_ASYNC_READ, FUSE_CAP_AUTO_INVAL_DATA, FUSE_CAP_PARALLEL_DIROPS,
                     FUSE_CAP_READDIRPLUS, FUSE_CAP_READDIRPLUS_AUTO});
  // Data is in memory already; splicing would gain nothing.
  refuse(*connection, {FUSE_CAP_SPLICE_READ, FUSE_CAP_SPLICE_WRITE, FUSE_CAP_SPLICE_MOVE});
  connection->max_background = kMaxBackground;
  connection->congestion_threshold = kMaxBackground * 3 / 4;
  const MountOptions& options = static_cast<MountContext*>(userData)->options();
  connection->max_read = options.maxRead;
  fuse_apply_conn_info_opts(options.connectionOptions.get(), connection);
  // Whatever the options say, the kernel must send writes at once, ask for truncations
  // by themselves and clear set-id bits.
  refuse(*connection,
         {FUSE_CAP_WRITEBACK_CACHE, FUSE_CAP_ATOMIC_O_TRUNC, FUSE_CAP_HANDLE_KILLPRIV});
}

}  // namespace

void MountContext::invalidateAttributes(NodeId node) noexcept {
  constexpr off_t kNoPages = -1;
  if (mSession != nullptr) fuse_lowlevel_notify_inval_inode(mSession, node, kNoPages, 0);
}

OpenDirectory* MountContext::add(OpenDirectory directory) {
  const MutexLock lock(mMutex);
  StoredDirectory& stored = mDirectories.emplace_front(StoredDirectory{std::move(directory), {}});
  stored.place = mDirectories.begin();
  return &stored;
}

void MountContext::remove(OpenDirectory* directory) {
  const MutexLock lock(mMutex);
  mDirectories.erase(static_cast<StoredDirectory*>(directory)->place);
}

// The kernel has good answers for the missing operations: extended attributes and
// fallocate fail, locks hold on this machine, access is granted, the syncing of a
// directory succeeds, and a copy within the drive reads and writes.
fuse_lowlevel_ops operations() {
  fuse_lowlevel_ops result{};
  result.init = initialise;
  result.lookup = kGuarded<handleLookup>;
  result.forget = handleForget;
  result.forget_multi = handleForgetMany;
  result.getattr = kGuarded<handleGetAttributes>;
  result.setattr = kGuarded<handleSetAttributes>;
  result.readlink = kGuarded<handleReadLink>;
  result.mknod = kGuarded<handleMakeNode>;
  result.mkdir = kGuarded<handleMakeDirectory>;
  result.unlink = kGuarded<handleUnlink>;
  result.rmdir = kGuarded<handleRemoveDirectory>;
  result.symlink = kGuarded<handleSymlink>;
  result.rename = kGuarded<handleRename>;
  result.link = kGuarded<handleLink>;
  result.open = kGuarded<handleOpen>;
  result.read = kGuarded<handleRead>;
  result.write = kGuarded<handleWrite>;
  result.flush = kGuarded<handleFlush>;
  result.release = kGuarded<handleRelease>;
  result.fsync = kGuarded<handleSync>;
  result.opendir = kGuarded<handleOpenDirectory>;
  result.readdir = kGuarded<handleReadDirectory>;
  result.readdirplus = kGuarded<handleReadDirectoryPlus>;
  result.releasedir = kGuarded<handleReleaseDirectory>;
  result.statfs = kGuarded<handleStatfs>;
  result.create = kGuarded<handleCreate>;
  return result;
}

}  // namespace zor::client::mount
