// Properties of each command that a client sends.
#pragma once

#include <cstdint>
#include <string_view>

#include "protocol/commands.h"

namespace zor::client {

struct CommandTraits {
  std::string_view name;  ///< empty for a command that no client awaits an answer to
  /// Whether it is idempotent: sending it again, after the host may have served it, leads to
  /// the same state and a usable answer. Holds for a request alone and for requests
  /// that are all sent again in their order.
  bool repeatable;
  /// The longest answer that is taken. Hosts keep far below all of these.
  std::uint32_t longestAnswer = std::uint32_t{256} << 10;
};

inline constexpr std::uint32_t kMaxListing = std::uint32_t{192} << 20;

// A command of the protocol without a case does not compile.
// clang-format off
constexpr CommandTraits traitsOf(wire::Command command) noexcept {
  using enum wire::Command;
  switch (command) {
    case kGetFileAttr:   return {"attributes", true};
    case kFileCreate:    return {"create", true};
    case kFileRead:      return {"read", true, std::uint32_t{33} << 20};
    case kFileWrite:     return {"write", true};
    case kDirRead:       return {"list", true, kMaxListing};
    case kGetXattr:      return {"extended attribute", true};
    case kFileTruncate:  return {"truncate", true};
    case kFileFsync:     return {"sync", true};
    case kFileChmod:     return {"permissions", true};
    case kFileChown:     return {"owner", true};
    case kGetStatvfs:    return {"statfs", true};
    case kMakeDir:       return {"make directory", true};
    case kRemoveDir:     return {"remove directory", false};
    case kSetLink:       return {"link", false};
    case kSetUnlink:     return {"unlink", false};
    case kSetRename:     return {"rename", false};
    case kFileFlush:     return {"flush", true};
    case kFileRelease:   return {"release", true};
    case kCheckDir:      return {"check directory", true, kMaxListing};
    case kSmallFileRead: return {"read small files", true, std::uint32_t{65} << 20};
    case kMountRemote: case kUmountRemote: case kFileOpen: case kSmallFileNotice:
    case kMountResponse: case kBandwidth: break;  // never awaited
  }
  return {"", false};
}
// clang-format on

constexpr bool isRepeatable(wire::Command command) noexcept { return traitsOf(command).repeatable; }

}  // namespace zor::client
