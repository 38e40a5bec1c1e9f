// Texts of a peer as log lines and trace events show them.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace zor {

/// The first 4,096 bytes of a text, or of two with nothing between: no path that the
/// system takes is longer, and a peer may send one of megabytes. Allocates nothing.
class LogText {
 public:
  explicit LogText(std::string_view text, std::string_view more = {}) noexcept {
    add(text);
    add(more);
    mText[mLength] = '\0';
  }

  const char* c_str() const noexcept { return mText; }
  char* data() noexcept { return mText; }
  std::string str() const { return {mText, mLength}; }

 private:
  static constexpr std::size_t kMaxSize = 4096;

  void add(std::string_view text) noexcept {
    text = text.substr(0, kMaxSize - mLength);
    if (!text.empty()) std::memcpy(mText + mLength, text.data(), text.size());
    mLength += text.size();
  }

  std::size_t mLength = 0;
  char mText[kMaxSize + 1];  // deliberately not initialised
};

}  // namespace zor
