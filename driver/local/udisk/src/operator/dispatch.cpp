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
    Operation{Command::kMountRemote,     "mount_remote",    &Op::mount_remote,    kHeader, kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kUmountRemote,    "umount_remote",   &Op::umount_remote,   kHeader, kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kGetFileAttr,     "get_file_attr",   &Op::get_file_attr,   kHeader, kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kFileCreate,      "file_create",     &Op::file_create,     kHeader, kChanges, kInvalidatesStatfs, kKeepsPaths},
    Operation{Command::kFileOpen,        "file_open",       nullptr,              0,       kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kFileRead,        "file_read",       &Op::file_read,       kHeader, kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kFileWrite,       "file_write",      &Op::file_write,      kHeader, kChanges, kInvalidatesStatfs, kKeepsPaths},
    Operation{Command::kDirRead,         "dir_read",        &Op::dir_read,        kHeader, kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kGetXattr,        "get_xattr",       &Op::get_xattr,       kHeader, kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kFileTruncate,    "file_truncate",   &Op::file_truncate,   kHeader, kChanges, kInvalidatesStatfs, kKeepsPaths},
    Operation{Command::kFileFsync,       "file_fsync",      &Op::file_fsync,      kHeader, kChanges, kInvalidatesStatfs, kKeepsPaths},
    Operation{Command::kFileChmod,       "file_chmod",      &Op::file_chmod,      kHeader, kChanges, kKeepsStatfs,  kInvalidatesPaths},
    Operation{Command::kFileChown,       "file_chown",      &Op::file_chown,      kHeader, kChanges, kKeepsStatfs,  kInvalidatesPaths},
    Operation{Command::kGetStatvfs,      "get_statvfs",     &Op::get_statvfs,     kHeader, kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kMakeDir,         "make_dir",        &Op::make_dir,        kHeader, kChanges, kInvalidatesStatfs, kKeepsPaths},
    Operation{Command::kRemoveDir,       "remove_dir",      &Op::remove_dir,      kHeader, kChanges, kInvalidatesStatfs, kInvalidatesPaths},
    Operation{Command::kSetLink,         "set_link",        &Op::set_link,        kHeader, kChanges, kInvalidatesStatfs, kKeepsPaths},
    Operation{Command::kSetUnlink,       "set_unlink",      &Op::set_unlink,      kHeader, kChanges, kInvalidatesStatfs, kInvalidatesPaths},
    Operation{Command::kSetRename,       "set_rename",      &Op::set_rename,      kHeader, kChanges, kInvalidatesStatfs, kInvalidatesPaths},
    Operation{Command::kFileFlush,       "file_flush",      &Op::file_flush,      0,       kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kFileRelease,     "file_release",    &Op::file_release,    0,       kChanges, kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kCheckDir,        "check_dir",       &Op::check_dir,       kHeader, kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kSmallFileNotice, "small_file_notice", nullptr,            0,       kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kSmallFileRead,   "small_file_read", &Op::small_file_read, kHeader, kReads,   kKeepsStatfs,  kKeepsPaths},
    Operation{Command::kMountResponse,   "mount_response",  &Op::mount_response,  0,       kReads,   kKeepsStatfs,  kKeepsPaths},
};
// clang-format on

static_assert(std::is_sorted(kOperations.begin(), kOperations.end(),
                             [](auto& a, auto& b) { return a.command < b.command; }));

}  // namespace

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

int UDiskOperator::reply(const ZorPacket& request, Reply& reply) {
  std::unique_ptr<ZorPacket> packet = reply.take();
  const Operation* operation = findOperation(request.GetCmd());
  if (operation != nullptr && operation->invalidatesStatfs) mDiskChanged = 1;
  if (!packet) {
    MORVEL_ERROR("no memory for the reply, cmd: %d", request.GetCmd());
    return -1;
  }
  return send(std::move(packet));
}

int UDiskOperator::send(std::unique_ptr<ZorPacket> packet) {
  // Otherwise the thread is told when it is about to wait for a remote that does not read.
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
