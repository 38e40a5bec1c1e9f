#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "mount/operations.h"

namespace zor::client::mount {
namespace {

// Programs skip entries with the inode number 0.
constexpr ino_t kUnknownNumber = 0xffffffff;
constexpr std::size_t kMinEntryPlus = 152;
constexpr std::size_t kDots = 2;  ///< "." and "..", which come before the items

OpenDirectory& directoryOf(const fuse_file_info* info) {
  return *reinterpret_cast<OpenDirectory*>(info->fh);
}

/// The entries of one reply.
class EntryReply {
 public:
  EntryReply(fuse_req_t request, fuse_ino_t directory, std::size_t size, bool plus)
      : mRequest(request),
        mContext(contextOf(request)),
        mDirectory(directory),
        mPlus(plus),
        mReply(storage()) {
    if (mReply.size() < size) mReply.resize(size);
    mSize = size;
    if (plus) mEntered.reserve(size / kMinEntryPlus + 1);
  }

  /// False when there is no room for it.
  bool addDots(std::size_t index, std::uint64_t number) {
    fuse_entry_param entry{};
    entry.attr.st_ino = number != 0 ? number : kUnknownNumber;
    entry.attr.st_mode = S_IFDIR;
    const char* name = index == 0 ? "." : "..";
    return fits(name) && put(name, entry, index);
  }

  bool addItem(const DirectoryItem& item, std::size_t index) {
    if (!fits(item.name.c_str())) return false;
    fuse_entry_param entry{};
    if (mPlus) {
      const NodeEntry entered = mContext.drive().enter(mDirectory, item);
      if (entered.node == 0 && item.attributes.st_mode != 0) return true;
      if (entered.node != 0) {
        mEntered.push_back(entered.node);
        entry = toEntry(entered, mContext.ownership());
      }
    }
    if (entry.ino == 0) {
      entry.attr.st_ino = item.attributes.st_ino != 0 ? item.attributes.st_ino : kUnknownNumber;
      entry.attr.st_mode = item.attributes.st_mode & S_IFMT;
    }
    return put(item.name.c_str(), entry, index);
  }

  int reply() {
    if (fuse_reply_buf(mRequest, mReply.data(), mUsed) == -ENOENT) {
      for (const NodeId node : mEntered) mContext.drive().forget(node, 1);
    }
    return kReplied;
  }

 private:
  // One per thread; every listing reuses it.
  static std::vector<char>& storage() {
    thread_local std::vector<char> sStorage;
    return sStorage;
  }

  bool fits(const char* name) const {
    const std::size_t needed = mPlus
                                   ? fuse_add_direntry_plus(mRequest, nullptr, 0, name, nullptr, 0)
                                   : fuse_add_direntry(mRequest, nullptr, 0, name, nullptr, 0);
    return needed <= mSize - mUsed;
  }

  bool put(const char* name, const fuse_entry_param& entry, std::size_t index) {
    char* at = mReply.data() + mUsed;
    const auto next = static_cast<off_t>(index + 1);
    mUsed += mPlus ? fuse_add_direntry_plus(mRequest, at, mSize - mUsed, name, &entry, next)
                   : fuse_add_direntry(mRequest, at, mSize - mUsed, name, &entry.attr, next);
    return true;
  }

  fuse_req_t mRequest;
  MountContext& mContext;
  const fuse_ino_t mDirectory;
  const bool mPlus;
  std::vector<char>& mReply;
  std::size_t mSize = 0;
  std::size_t mUsed = 0;
  std::vector<NodeId> mEntered;  ///< to be forgotten when the kernel does not take the reply
};

int readDirectory(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                  fuse_file_info* info, bool plus) {
  OpenDirectory& directory = directoryOf(info);
  if (offset == 0) {
    // Also at the first read: the program may have made a file since it opened the directory.
    Drive& drive = contextOf(request).drive();
    const auto current = drive.openDirectory(node);
    if (!current) return current.error().value;
    directory.items = *current;
    const auto [own, above] = drive.dotNumbers(node);
    directory.dots = {own, above};
  }
  const std::vector<DirectoryItem>& items = *directory.items;
  const std::size_t end = items.size() + kDots;
  EntryReply entries(request, node, size, plus);
  for (auto i = static_cast<std::size_t>(offset); i < end; ++i) {
    if (!(i < kDots ? entries.addDots(i, directory.dots[i]) : entries.addItem(items[i - kDots], i)))
      break;
  }
  return entries.reply();
}

}  // namespace

int handleOpenDirectory(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
  MountContext& context = contextOf(request);
  const auto items = context.drive().openDirectory(node);
  if (!items) return items.error().value;
  OpenDirectory* directory = context.add({*items});
  info->fh = reinterpret_cast<std::uintptr_t>(directory);
  if (fuse_reply_open(request, info) == -ENOENT) context.remove(directory);
  return kReplied;
}

int handleReadDirectory(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                        fuse_file_info* info) {
  return readDirectory(request, node, size, offset, info, false);
}

int handleReadDirectoryPlus(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                            fuse_file_info* info) {
  return readDirectory(request, node, size, offset, info, true);
}

int handleReleaseDirectory(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  contextOf(request).remove(&directoryOf(info));
  return 0;
}

}  // namespace zor::client::mount
