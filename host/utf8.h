// Making foreign bytes fit to be shown.
#pragma once

#include <string>
#include <string_view>

namespace zor::host {

/// `text` as well-formed UTF-8: every byte that belongs to no well-formed
/// sequence becomes U+FFFD.
std::string validUtf8(std::string_view text);

}  // namespace zor::host
