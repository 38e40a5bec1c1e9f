#include <sys/stat.h>

#include <cerrno>

#include "mount/operations.h"

namespace zor::client::mount {
namespace {

// Owner and permissions first: a length set on a file that is being made
// private must not be seen by others.
Outcome<Unit> change(MountContext& context, NodeId node, const struct stat& wanted, int which) {
  Drive& drive = context.drive();
  const OwnershipOverride& shown = context.ownership();
  const bool quiet = context.options().quiet;
  if ((which & (FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) != 0) {
    const auto uid =
        idToSet((which & FUSE_SET_ATTR_UID) != 0 ? wanted.st_uid : kSameId, shown.uid, quiet);
    if (!uid) return uid.error();
    const auto gid =
        idToSet((which & FUSE_SET_ATTR_GID) != 0 ? wanted.st_gid : kSameId, shown.gid, quiet);
    if (!gid) return gid.error();
    if (*uid != kSameId || *gid != kSameId) {
      if (auto done = drive.setOwner(node, *uid, *gid); !done) return done;
    }
  }
  if ((which & FUSE_SET_ATTR_MODE) != 0) {
    if (auto done = drive.setMode(node, wanted.st_mode); !done) return done;
  }
  if ((which & FUSE_SET_ATTR_SIZE) != 0) {
    if (wanted.st_size < 0) return Errno{EINVAL};
    if (auto done = drive.setLength(node, static_cast<std::uint64_t>(wanted.st_size)); !done) {
      return done;
    }
  }
  // A truncation comes with times that it sets by itself.
  constexpr int kTimes = FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME;
  constexpr int kNow = FUSE_SET_ATTR_ATIME_NOW | FUSE_SET_ATTR_MTIME_NOW;
  if ((which & (kTimes | kNow)) != 0 && (which & FUSE_SET_ATTR_SIZE) == 0) {
    const bool now =
        ((which & FUSE_SET_ATTR_ATIME) == 0 || (which & FUSE_SET_ATTR_ATIME_NOW) != 0) &&
        ((which & FUSE_SET_ATTR_MTIME) == 0 || (which & FUSE_SET_ATTR_MTIME_NOW) != 0);
    if (auto done = drive.setTimes(node, now); !done) return done;
  }
  return Unit{};
}

}  // namespace

fuse_entry_param toEntry(const NodeEntry& entry, const OwnershipOverride& shown) {
  fuse_entry_param result{};
  result.ino = entry.node;
  if (entry.node != 0) result.attr = toStat(entry.attributes, entry.node, shown);
  result.attr_timeout = toSeconds(entry.validFor);
  if (!entry.hasSpellings) result.entry_timeout = result.attr_timeout;
  return result;
}

int replyEntry(fuse_req_t request, const Outcome<NodeEntry>& entry) {
  if (!entry) return entry.error().value;
  MountContext& context = contextOf(request);
  const fuse_entry_param reply = toEntry(*entry, context.ownership());
  if (fuse_reply_entry(request, &reply) == -ENOENT && entry->node != 0) {
    context.drive().forget(entry->node, 1);
  }
  return kReplied;
}

int handleLookup(fuse_req_t request, fuse_ino_t directory, const char* name) {
  if (isTooLong(name)) return ENAMETOOLONG;
  return replyEntry(request, contextOf(request).drive().lookup(directory, name));
}

void handleForget(fuse_req_t request, fuse_ino_t node, std::uint64_t references) {
  contextOf(request).drive().forget(node, references);
  fuse_reply_none(request);
}

void handleForgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* nodes) {
  Drive& drive = contextOf(request).drive();
  for (std::size_t i = 0; i < count; ++i) drive.forget(nodes[i].ino, nodes[i].nlookup);
  fuse_reply_none(request);
}

namespace {

int replyAttributes(fuse_req_t request, fuse_ino_t node, bool asOfNow) {
  MountContext& context = contextOf(request);
  const auto found = context.drive().attributes(node, asOfNow);
  if (!found) return found.error().value;
  const struct stat reply = toStat(found->attributes, node, context.ownership());
  fuse_reply_attr(request, &reply, toSeconds(found->validFor));
  return kReplied;
}

}  // namespace

// With an open file, the kernel itself asks for the length before it reads. A program's
// question is about the file as it is on the disk.
int handleGetAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
  return replyAttributes(request, node, info == nullptr);
}

int handleSetAttributes(fuse_req_t request, fuse_ino_t node, struct stat* wanted, int which,
                        fuse_file_info*) {
  const auto done = change(contextOf(request), node, *wanted, which);
  return done ? replyAttributes(request, node, false) : done.error().value;
}

// EINVAL would mean that it is no link.
int handleReadLink(fuse_req_t, fuse_ino_t) { return EOPNOTSUPP; }

int handleMakeNode(fuse_req_t request, fuse_ino_t directory, const char* name, mode_t mode, dev_t) {
  if (!S_ISREG(mode)) return EPERM;
  if (isTooLong(name)) return ENAMETOOLONG;
  Drive& drive = contextOf(request).drive();
  const auto created = drive.create(directory, name, mode, O_CREAT | O_EXCL | O_WRONLY);
  if (!created) return created.error().value;
  const auto made = drive.flush(*created->open.file);
  drive.release(*created->open.file);
  if (!made) {
    drive.forget(created->entry.node, 1);
    return made.error().value;
  }
  return replyEntry(request, created->entry);
}

int handleMakeDirectory(fuse_req_t request, fuse_ino_t directory, const char* name, mode_t mode) {
  if (isTooLong(name)) return ENAMETOOLONG;
  return replyEntry(request, contextOf(request).drive().makeDirectory(directory, name, mode));
}

int handleUnlink(fuse_req_t request, fuse_ino_t directory, const char* name) {
  return statusOf(contextOf(request).drive().unlink(directory, name));
}

int handleRemoveDirectory(fuse_req_t request, fuse_ino_t directory, const char* name) {
  return statusOf(contextOf(request).drive().removeDirectory(directory, name));
}

int handleSymlink(fuse_req_t, const char*, fuse_ino_t, const char*) { return EPERM; }

int handleRename(fuse_req_t request, fuse_ino_t from, const char* name, fuse_ino_t to,
                 const char* newName, unsigned flags) {
  if (isTooLong(newName)) return ENAMETOOLONG;
  return statusOf(contextOf(request).drive().rename(from, name, to, newName, flags));
}

int handleLink(fuse_req_t request, fuse_ino_t node, fuse_ino_t directory, const char* name) {
  if (isTooLong(name)) return ENAMETOOLONG;
  MountContext& context = contextOf(request);
  const auto linked = context.drive().link(node, directory, name);
  // The kernel cached the attributes under the old name, and would keep them over changes
  // that are made under the new one.
  if (linked) context.invalidateAttributes(node);
  return replyEntry(request, linked);
}

int handleStatfs(fuse_req_t request, fuse_ino_t) {
  const auto found = contextOf(request).drive().statfs();
  if (!found) return found.error().value;
  const struct statvfs reply = toStatvfs(*found);
  fuse_reply_statfs(request, &reply);
  return kReplied;
}

}  // namespace zor::client::mount
