// Making foreign bytes fit to be shown.
#pragma once

#include <string>
#include <string_view>

#include "support/printable.h"

namespace zor::host {

using zor::printable;

/// `text` as well-formed UTF-8: every byte that belongs to no well-formed
/// sequence becomes U+FFFD.
std::string validUtf8(std::string_view text);

}  // namespace zor::host
