// Properties of each command that a client sends.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "protocol/commands.h"

namespace zor::client {

struct CommandTraits {
  wire::Command command;
  std::string_view name;
  /// Whether it is idempotent: sending it again, after the host may have served it, leads to
  /// the same state and a usable answer. Holds for a request alone and for requests
  /// that are all sent again in their order.
  bool repeatable;
  /// The longest answer that is taken. Hosts keep far below all of these.
  std::uint32_t longestAnswer = std::uint32_t{256} << 10;
};

inline constexpr std::uint32_t kMaxListing = std::uint32_t{192} << 20;

inline constexpr std::array kCommandTraits{
    CommandTraits{wire::Command::kGetFileAttr, "attributes", true},
    CommandTraits{wire::Command::kFileCreate, "create", true},
    CommandTraits{wire::Command::kFileRead, "read", true, std::uint32_t{33} << 20},
    CommandTraits{wire::Command::kFileWrite, "write", true},
    CommandTraits{wire::Command::kDirRead, "list", true, kMaxListing},
    CommandTraits{wire::Command::kGetXattr, "extended attribute", true},
    CommandTraits{wire::Command::kFileTruncate, "truncate", true},
    CommandTraits{wire::Command::kFileFsync, "sync", true},
    CommandTraits{wire::Command::kFileChmod, "permissions", true},
    CommandTraits{wire::Command::kFileChown, "owner", true},
    CommandTraits{wire::Command::kGetStatvfs, "statfs", true},
    CommandTraits{wire::Command::kMakeDir, "make directory", true},
    CommandTraits{wire::Command::kRemoveDir, "remove directory", false},
    CommandTraits{wire::Command::kSetLink, "link", false},
    CommandTraits{wire::Command::kSetUnlink, "unlink", false},
    CommandTraits{wire::Command::kSetRename, "rename", false},
    CommandTraits{wire::Command::kFileFlush, "flush", true},
    CommandTraits{wire::Command::kFileRelease, "release", true},
    CommandTraits{wire::Command::kCheckDir, "check directory", true, kMaxListing},
    CommandTraits{wire::Command::kSmallFileRead, "read small files", true, std::uint32_t{65} << 20},
};

constexpr CommandTraits traitsOf(wire::Command command) noexcept {
  for (const CommandTraits& traits : kCommandTraits) {
    if (traits.command == command) return traits;
  }
  return {command, "unknown", false};
}

constexpr bool isRepeatable(wire::Command command) noexcept { return traitsOf(command).repeatable; }

}  // namespace zor::client
