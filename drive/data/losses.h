// The files that lost data.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zor::client {

/// Guarded by the drive's mutex.
class Losses {
 public:
  /// A write to `path` failed. Each file is named once.
  void add(const std::string& path) {
    ++mFailedWrites;
    if (std::find(mPaths.begin(), mPaths.end(), path) == mPaths.end()) mPaths.push_back(path);
  }

  /// Those that were added since the last call.
  std::vector<std::string> takeUnreported() {
    const auto from = static_cast<std::ptrdiff_t>(std::exchange(mReported, mPaths.size()));
    return {mPaths.begin() + from, mPaths.end()};
  }
  bool allReported() const noexcept { return mReported == mPaths.size(); }

  const std::vector<std::string>& paths() const noexcept { return mPaths; }
  std::uint64_t failedWrites() const noexcept { return mFailedWrites; }

 private:
  std::vector<std::string> mPaths;
  std::size_t mReported = 0;  ///< how many of them, in order
  std::uint64_t mFailedWrites = 0;
};

}  // namespace zor::client
