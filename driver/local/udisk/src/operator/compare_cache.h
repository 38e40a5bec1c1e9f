// What a peer's listing must be before it is compared with a directory.
#pragma once

#include <cstddef>

#include "protocol/codec.h"

namespace zor {

/// Whether `listing` begins with `count` well-formed entries. What follows them does
/// not matter.
bool holdsEntries(wire::Bytes listing, std::size_t count) noexcept;

}  // namespace zor
