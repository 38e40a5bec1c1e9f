// Bounding what a scan of the disk's tree holds, whatever the host lists.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "client/listing.h"
#include "client/remote_path.h"
#include "client/result.h"

namespace zor::client::cli {

/// No host serves a longer path, wherever its disk is mounted; so a chain of
/// directories ends here.
inline constexpr std::size_t kMaxPath = 4095;

inline Error pathTooLong() { return {ErrorKind::kRefused, "the path is too long"}; }

/// A directory that has been listed. The names in it that wait for their turn
/// share it, instead of having a whole path each.
class ScannedDirectory {
 public:
  explicit ScannedDirectory(std::string path) : mPath(std::move(path)) {}
  ~ScannedDirectory() { sHeld -= mHeld; }

  ScannedDirectory(const ScannedDirectory&) = delete;
  ScannedDirectory& operator=(const ScannedDirectory&) = delete;

  const std::string& path() const noexcept { return mPath; }
  std::string pathOf(std::string_view name) const { return joinPath(mPath, name); }

  /// Whether the path of `name` in it is short enough.
  bool reaches(std::string_view name) const noexcept {
    return mPath.size() + 1 + name.size() <= kMaxPath;
  }

  /// Counts its names, `each` bytes and the name's own for every one, until this
  /// object is gone; refused when too many would be waiting. Once at most.
  Status hold(const Listing& listing, std::size_t each) {
    std::uint64_t bytes = mPath.size() + each;
    for (const wire::DirEntry& entry : listing.entries()) bytes += each + entry.name.size();
    if (sHeld + bytes > kMax) return Error{ErrorKind::kRefused, "too many names are waiting"};
    sHeld += mHeld = bytes;
    return Unit{};
  }

  /// Whether so many names are waiting in this process that no directory should be listed
  /// ahead of its turn.
  static bool overBudget() noexcept { return sHeld >= kBudget; }

 private:
  static constexpr std::uint64_t kBudget = std::uint64_t{64} << 20;
  static constexpr std::uint64_t kMax = std::uint64_t{256} << 20;
  static inline std::atomic<std::uint64_t> sHeld{0};

  const std::string mPath;
  std::uint64_t mHeld = 0;
};

}  // namespace zor::client::cli
