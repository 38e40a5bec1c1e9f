// Command codes of the packet header's `cmd` field, and the fixed identities.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zor::wire {

enum class Command : std::uint16_t {
  kMountRemote = 100,  ///< also the announcement that the module sends by itself
  kUmountRemote = 101,
  kGetFileAttr = 102,
  kFileCreate = 103,
  kFileOpen = 104,  ///< never served: files are named by path in every request
  kFileRead = 105,
  kFileWrite = 106,
  kDirRead = 107,
  kGetXattr = 108,
  kFileTruncate = 109,
  kFileFsync = 110,
  kFileChmod = 111,
  kFileChown = 112,
  kGetStatvfs = 113,
  kMakeDir = 114,
  kRemoveDir = 115,
  kSetLink = 116,
  kSetUnlink = 117,
  kSetRename = 118,
  kFileFlush = 119,
  kFileRelease = 120,
  kCheckDir = 121,
  kSmallFileNotice = 122,  ///< sent by the module: command 123 is served
  kSmallFileRead = 123,
  kMountResponse = 200,
  kBandwidth = 513,  ///< bus event: the announced read bandwidth
};

constexpr std::uint16_t code(Command command) noexcept {
  return static_cast<std::uint16_t>(command);
}

/// Packets with this code or a higher one are bus events.
inline constexpr std::uint16_t kFirstBusEvent = 512;

inline constexpr std::uint32_t kAnnouncementRequestId = 1234;
inline constexpr std::uint32_t kSmallFileNoticeRequestId = 6666;

/// The largest packet that may cross the stream towards the host.
inline constexpr std::uint32_t kMaxPacketLength = 64U << 20;

/// The most file data that one reply carries; a larger request reads this much.
inline constexpr std::uint32_t kMaxReadSize = 32U << 20;

}  // namespace zor::wire
