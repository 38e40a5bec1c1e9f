// What the process has open.
#pragma once

#include <span>

namespace zor::host {

/// Closes every descriptor above the standard ones but `kept`. Throws std::exception when the
/// system does not say which there are.
void closeAllBut(std::span<const int> kept);

/// Lets go of what the starting program left open: every descriptor above the standard ones, the
/// standard input, and the reading from a terminal that output goes to. REQUIRES: the
/// standard descriptors are open.
void dropInheritedDescriptors();

}  // namespace zor::host
