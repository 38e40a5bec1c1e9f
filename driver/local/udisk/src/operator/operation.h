// What the dispatcher knows of a command.
#pragma once

#include "protocol/commands.h"
#include "zor_packet.h"

namespace zor {

class UDiskOperator;

struct Operation {
  using Handler = int (UDiskOperator::*)(unsigned char headerLength, ZorPacket* request);

  wire::Command command;
  const char* name;
  Handler handler;             ///< null: the command is dropped without an answer
  unsigned char headerLength;  ///< what a reply reserves for its header
  bool changesDisk;            ///< refused on a read-only disk
  bool invalidatesStatfs;      ///< its reply makes the cached statfs invalid
  bool invalidatesPaths;       ///< a path may lead elsewhere afterwards, or nowhere
};

/// The operation of a command code, or null.
const Operation* findOperation(std::uint16_t command) noexcept;

}  // namespace zor
