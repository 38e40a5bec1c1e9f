// The table of commands, the way from a packet to its handler, and the way of
// a reply to the device.
#include <algorithm>
#include <array>
#include <exception>

#include "morvel_log.h"
#include "reply.h"
#include "request.h"
#include "udisk_operator.h"

namespace zor {
namespace {

using wire::Command;
using Op = UDiskOperator;

constexpr unsigned char kHeader = kPacketHeaderSize;
constexpr bool kReads = false;
constexpr bool kChanges = true;
constexpr bool kKeepsStatfs = false;
constexpr bool kInvalidatesStatfs = true;
constexpr bool kKeepsPaths = false;
constexpr bool kInvalidatesPaths = true;

// clang-format off
constexpr std::array kOperations = {
    Operation{Command::kMountRemote,      "mount_remote",      &Op::mount_remote,    kHeader, kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kUmountRemote,     "umount_remote",     &Op::umount_remote,   kHeader, kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kGetFileAttr,      "get_file_attr",     &Op::get_file_attr,   kHeader, kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kFileCreate,       "file_create",       &Op::file_create,     kHeader, kChanges, kInvalidatesStatfs,  kKeepsPaths},
    Operation{Command::kFileOpen,         "file_open",         nullptr,              0,       kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kFileRead,         "file_read",         &Op::file_read,       kHeader, kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kFileWrite,        "file_write",        &Op::file_write,      kHeader, kChanges, kInvalidatesStatfs,  kKeepsPaths},
    Operation{Command::kDirRead,          "dir_read",          &Op::dir_read,        kHeader, kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kGetXattr,         "get_xattr",         &Op::get_xattr,       kHeader, kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kFileTruncate,     "file_truncate",     &Op::file_truncate,   kHeader, kChanges, kInvalidatesStatfs,  kKeepsPaths},
    Operation{Command::kFileFsync,        "file_fsync",        &Op::file_fsync,      kHeader, kChanges, kInvalidatesStatfs,  kKeepsPaths},
    Operation{Command::kFileChmod,        "file_chmod",        &Op::file_chmod,      kHeader, kChanges, kKeepsStatfs,        kInvalidatesPaths},
    Operation{Command::kFileChown,        "file_chown",        &Op::file_chown,      kHeader, kChanges, kKeepsStatfs,        kInvalidatesPaths},
    Operation{Command::kGetStatvfs,       "get_statvfs",       &Op::get_statvfs,     kHeader, kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kMakeDir,          "make_dir",          &Op::make_dir,        kHeader, kChanges, kInvalidatesStatfs,  kKeepsPaths},
    Operation{Command::kRemoveDir,        "remove_dir",        &Op::remove_dir,      kHeader, kChanges, kInvalidatesStatfs,  kInvalidatesPaths},
    Operation{Command::kSetLink,          "set_link",          &Op::set_link,        kHeader, kChanges, kInvalidatesStatfs,  kKeepsPaths},
    Operation{Command::kSetUnlink,        "set_unlink",        &Op::set_unlink,      kHeader, kChanges, kInvalidatesStatfs,  kInvalidatesPaths},
    Operation{Command::kSetRename,        "set_rename",        &Op::set_rename,      kHeader, kChanges, kInvalidatesStatfs,  kInvalidatesPaths},
    Operation{Command::kFileFlush,        "file_flush",        &Op::file_flush,      0,       kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kFileRelease,      "file_release",      &Op::file_release,    0,       kChanges, kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kCheckDir,         "check_dir",         &Op::check_dir,       kHeader, kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kSmallFileNotice,  "small_file_notice", nullptr,              0,       kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kSmallFileRead,    "small_file_read",   &Op::small_file_read, kHeader, kReads,   kKeepsStatfs,        kKeepsPaths},
    Operation{Command::kMountResponse,    "mount_response",    &Op::mount_response,  0,       kReads,   kKeepsStatfs,        kKeepsPaths},
};
// clang-format on

static_assert(std::is_sorted(kOperations.begin(), kOperations.end(),
                             [](auto& a, auto& b) { return a.command < b.command; }));

// Without its row in the table a handler does not compile.
template <Command C>
constexpr const Operation& kOperationOf = *std::find_if(kOperations.begin(), kOperations.end(),
                                                        [](const Operation& operation) {
                                                          return operation.command == C;
                                                        });

}  // namespace

// The handlers as the framework's interface has them, each bound to the typed one of its name.
template <Command C, wire::Record R>
int Op::serve(unsigned char headerLength, const ZorPacket* packet,
              int (Op::*handler)(DecodedRequest<R>&)) {
  DecodedRequest<R> request({kOperationOf<C>, *packet, headerLength});
  return request ? (this->*handler)(request) : -1;
}

template <Command C>
int Op::serve(unsigned char headerLength, const ZorPacket* packet,
              int (Op::*handler)(const HandlerCall&)) {
  return (this->*handler)({kOperationOf<C>, *packet, headerLength});
}

// clang-format off
int Op::mount_remote(unsigned char h, ZorPacket* p) { return serve<Command::kMountRemote>(h, p, &Op::mount_remote); }
int Op::umount_remote(unsigned char h, ZorPacket* p) { return serve<Command::kUmountRemote>(h, p, &Op::umount_remote); }
int Op::get_file_attr(unsigned char h, ZorPacket* p) { return serve<Command::kGetFileAttr>(h, p, &Op::get_file_attr); }
int Op::file_create(unsigned char h, ZorPacket* p) { return serve<Command::kFileCreate>(h, p, &Op::file_create); }
int Op::file_read(unsigned char h, ZorPacket* p) { return serve<Command::kFileRead>(h, p, &Op::file_read); }
int Op::file_write(unsigned char h, ZorPacket* p) { return serve<Command::kFileWrite>(h, p, &Op::file_write); }
int Op::dir_read(unsigned char h, ZorPacket* p) { return serve<Command::kDirRead>(h, p, &Op::dir_read); }
int Op::get_xattr(unsigned char h, ZorPacket* p) { return serve<Command::kGetXattr>(h, p, &Op::get_xattr); }
int Op::file_truncate(unsigned char h, ZorPacket* p) { return serve<Command::kFileTruncate>(h, p, &Op::file_truncate); }
int Op::file_fsync(unsigned char h, ZorPacket* p) { return serve<Command::kFileFsync>(h, p, &Op::file_fsync); }
int Op::file_chmod(unsigned char h, ZorPacket* p) { return serve<Command::kFileChmod>(h, p, &Op::file_chmod); }
int Op::file_chown(unsigned char h, ZorPacket* p) { return serve<Command::kFileChown>(h, p, &Op::file_chown); }
int Op::get_statvfs(unsigned char h, ZorPacket* p) { return serve<Command::kGetStatvfs>(h, p, &Op::get_statvfs); }
int Op::make_dir(unsigned char h, ZorPacket* p) { return serve<Command::kMakeDir>(h, p, &Op::make_dir); }
int Op::remove_dir(unsigned char h, ZorPacket* p) { return serve<Command::kRemoveDir>(h, p, &Op::remove_dir); }
int Op::set_link(unsigned char h, ZorPacket* p) { return serve<Command::kSetLink>(h, p, &Op::set_link); }
int Op::set_unlink(unsigned char h, ZorPacket* p) { return serve<Command::kSetUnlink>(h, p, &Op::set_unlink); }
int Op::set_rename(unsigned char h, ZorPacket* p) { return serve<Command::kSetRename>(h, p, &Op::set_rename); }
int Op::file_flush(unsigned char h, ZorPacket* p) { return serve<Command::kFileFlush>(h, p, &Op::file_flush); }
int Op::file_release(unsigned char h, ZorPacket* p) { return serve<Command::kFileRelease>(h, p, &Op::file_release); }
int Op::check_dir(unsigned char h, ZorPacket* p) { return serve<Command::kCheckDir>(h, p, &Op::check_dir); }
int Op::small_file_read(unsigned char h, ZorPacket* p) { return serve<Command::kSmallFileRead>(h, p, &Op::small_file_read); }
int Op::mount_response(unsigned char h, ZorPacket* p) { return serve<Command::kMountResponse>(h, p, &Op::mount_response); }
// clang-format on

std::span<const Operation> UDiskOperator::Operations() noexcept { return kOperations; }

const Operation* findOperation(std::uint16_t command) noexcept {
  const auto found = std::lower_bound(kOperations.begin(), kOperations.end(), command,
                                      [](const Operation& operation, std::uint16_t wanted) {
                                        return code(operation.command) < wanted;
                                      });
  return found != kOperations.end() && code(found->command) == command ? found : nullptr;
}

void UDiskOperator::EventHandle(std::unique_ptr<ZorPacket> packet) noexcept {
  if (!packet || !packet->mBuffer) return;
  const Operation* operation = findOperation(packet->GetCmd());
  if (operation == nullptr || operation->handler == nullptr) return;
  try {
    (this->*operation->handler)(operation->headerLength, packet.get());
  } catch (const std::exception& error) {
    MORVEL_ERROR("%s given up: %s", operation->name, error.what());
  }
  if (!mDisk) return;
  if (!mInBatch || mDisk->error() != 0) {
    closeDisk();
  } else if (operation->invalidatesPaths) {
    mDisk->forgetOpened();
  }
}

int UDiskOperator::reply(const HandlerCall& request, ReplyBuilder& reply) {
  std::unique_ptr<ZorPacket> packet = reply.take();
  if (request.operation.invalidatesStatfs) mDiskChanged = 1;
  if (!packet) {
    MORVEL_ERROR("no memory for the reply, cmd: %d", request.packet.GetCmd());
    return -1;
  }
  return send(std::move(packet));
}

int UDiskOperator::finish(const HandlerCall& request, ReplyBuilder reply, const char* name) {
  MORVEL_DEBUG_OF(request.operation.name, kLogDebug, "%s send back size:%d", name,
                  static_cast<int>(reply.size()));
  return this->reply(request, reply);
}

int UDiskOperator::send(std::unique_ptr<ZorPacket> packet) {
  // With listenForWaits the disk is closed only when the thread is about to block.
  if (listenForWaits == nullptr) closeDisk();
  return mDevice->SendPacket(std::move(packet), -1);
}

int UDiskOperator::echo(const ZorPacket& request) {
  std::unique_ptr<ZorPacket> packet = request.Clone();
  if (!packet) {  // `length` promises bytes that are not there
    reportMalformed(request);
    return -1;
  }
  return send(std::move(packet));
}

}  // namespace zor
