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

void handleCreate(fuse_req_t request, fuse_ino_t directory, const char* name, mode_t mode,
                  fuse_file_info* info) {
  if (isTooLong(name)) {
    fuse_reply_err(request, ENAMETOOLONG);
    return;
  }
  MountContext& context = contextOf(request);
  const auto created = context.drive().create(directory, name, mode, info->flags);
  if (!created) {
    fuse_reply_err(request, created.error().value);
    return;
  }
  fill(*info, created->open);
  const fuse_entry_param entry = toEntry(created->entry, context.ownership());
  if (fuse_reply_create(request, &entry, info) == -ENOENT) {
    context.drive().release(*created->open.file);
    context.drive().forget(created->entry.node, 1);
  }
}

void handleOpen(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
  Drive& drive = contextOf(request).drive();
  const auto opened = drive.open(node, info->flags);
  if (!opened) {
    fuse_reply_err(request, opened.error().value);
    return;
  }
  fill(*info, *opened);
  if (fuse_reply_open(request, info) == -ENOENT) drive.release(*opened->file);
}

void handleRead(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset,
                fuse_file_info* info) {
  const auto parts =
      contextOf(request).drive().read(fileOf(info), offset, static_cast<std::uint32_t>(size));
  if (!parts) {
    fuse_reply_err(request, parts.error().value);
    return;
  }
  std::array<iovec, 8> few{};
  if (parts->size() <= few.size()) {
    for (std::size_t i = 0; i < parts->size(); ++i) few[i] = toVector((*parts)[i]);
    fuse_reply_iov(request, few.data(), static_cast<int>(parts->size()));
    return;
  }
  std::vector<iovec> many;
  many.reserve(parts->size());
  for (const ReadPart& part : *parts) many.push_back(toVector(part));
  fuse_reply_iov(request, many.data(), static_cast<int>(many.size()));
}

void handleWrite(fuse_req_t request, fuse_ino_t, const char* data, std::size_t size, off_t offset,
                 fuse_file_info* info) {
  const wire::Bytes bytes(reinterpret_cast<const std::byte*>(data), size);
  const bool appends = (info->flags & O_APPEND) != 0;
  const auto done = contextOf(request).drive().write(fileOf(info), offset, bytes, appends);
  if (done) {
    fuse_reply_write(request, size);
  } else {
    fuse_reply_err(request, done.error().value);
  }
}

void handleFlush(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  replyStatus(request, contextOf(request).drive().flush(fileOf(info)));
}

void handleSync(fuse_req_t request, fuse_ino_t, int, fuse_file_info* info) {
  replyStatus(request, contextOf(request).drive().sync(fileOf(info)));
}

void handleRelease(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  contextOf(request).drive().release(fileOf(info));
  fuse_reply_err(request, 0);
}

}  // namespace zor::client::mount
