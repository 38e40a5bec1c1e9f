#include <fcntl.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <vector>

#include "mount/operations.h"

namespace zor::client::mount {
namespace {

OpenFile& fileOf(const fuse_file_info* info) { return *reinterpret_cast<OpenFile*>(info->fh); }

void fill(fuse_file_info& info, const OpenResult& open) {
  info.fh = reinterpret_cast<std::uintptr_t>(open.file);
  info.keep_cache = open.keepCache ? 1 : 0;
  // A file that is open for reading has nothing to flush at its close.
  info.noflush = (info.flags & O_ACCMODE) == O_RDONLY ? 1 : 0;
}

iovec toVector(const ReadPart& part) {
  return {const_cast<std::byte*>(part.bytes.data()), part.bytes.size()};
}

}  // namespace

int handleCreate(fuse_req_t request, fuse_ino_t directory, const char* name, mode_t mode,
                 fuse_file_info* info) {
  if (isTooLong(name)) return ENAMETOOLONG;
  MountContext& context = contextOf(request);
  const auto created = context.drive().create(directory, name, mode, info->flags);
  if (!created) return created.error().value;
  fill(*info, created->open);
  const fuse_entry_param entry = toEntry(created->entry, context.ownership());
  if (fuse_reply_create(request, &entry, info) == -ENOENT) {
    context.drive().release(*created->open.file);
    context.drive().forget(created->entry.node, 1);
  }
  return kReplied;
}

int handleOpen(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
  Drive& drive = contextOf(request).drive();
  const auto opened = drive.open(node, info->flags);
  if (!opened) return opened.error().value;
  fill(*info, *opened);
  if (fuse_reply_open(request, info) == -ENOENT) drive.release(*opened->file);
  return kReplied;
}

int handleRead(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset,
               fuse_file_info* info) {
  const auto parts =
      contextOf(request).drive().read(fileOf(info), offset, static_cast<std::uint32_t>(size));
  if (!parts) return parts.error().value;
  std::array<iovec, 8> few{};
  if (parts->size() <= few.size()) {
    for (std::size_t i = 0; i < parts->size(); ++i) few[i] = toVector((*parts)[i]);
    fuse_reply_iov(request, few.data(), static_cast<int>(parts->size()));
    return kReplied;
  }
  std::vector<iovec> many;
  many.reserve(parts->size());
  for (const ReadPart& part : *parts) many.push_back(toVector(part));
  fuse_reply_iov(request, many.data(), static_cast<int>(many.size()));
  return kReplied;
}

int handleWrite(fuse_req_t request, fuse_ino_t, const char* data, std::size_t size, off_t offset,
                fuse_file_info* info) {
  const wire::Bytes bytes(reinterpret_cast<const std::byte*>(data), size);
  const bool appends = (info->flags & O_APPEND) != 0;
  const auto done = contextOf(request).drive().write(fileOf(info), offset, bytes, appends);
  if (!done) return done.error().value;
  fuse_reply_write(request, size);
  return kReplied;
}

int handleFlush(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  return statusOf(contextOf(request).drive().flush(fileOf(info)));
}

int handleSync(fuse_req_t request, fuse_ino_t, int, fuse_file_info* info) {
  return statusOf(contextOf(request).drive().sync(fileOf(info)));
}

int handleRelease(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  contextOf(request).drive().release(fileOf(info));
  return 0;
}

}  // namespace zor::client::mount
