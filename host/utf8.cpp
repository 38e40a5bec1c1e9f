#include "host/utf8.h"

#include <cstddef>

#include "support/printable.h"

namespace zor::host {

std::string validUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  while (!text.empty()) {
    const std::size_t size = utf8Size(text);
    if (size == 0) {
      valid += "\xef\xbf\xbd";
      text.remove_prefix(1);
    } else {
      valid += text.substr(0, size);
      text.remove_prefix(size);
    }
  }
  return valid;
}

}  // namespace zor::host
