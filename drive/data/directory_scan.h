// Following a program that opens one file of a directory after another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "drive/metadata/directory_snapshot.h"

namespace zor::client {

/// Programs go in the order of the listing, or sort by inode number first.
enum class ScanOrder { kByName, kByInode };

/// Where one program is in one directory. Not thread-safe.
class DirectoryScan {
 public:
  explicit DirectoryScan(ScanOrder order) : mOrder(order) {}

  ScanOrder order() const noexcept { return mOrder; }
  bool begun() const noexcept { return !mLast.empty(); }

  /// Whether `name` is near behind the file that was read before it, in the
  /// order of which this is true; of both, in the one in which it is nearer.
  bool follows(const DirectorySnapshot& listing, std::string_view name);

  void moveTo(std::string_view name) { mLast = name; }

  /// The positions in this scan's order: of a name, and what stands there.
  std::optional<std::size_t> find(const DirectorySnapshot& listing, std::string_view name);
  const DirectoryItem& at(const DirectorySnapshot& listing, std::size_t position);

 private:
  std::size_t stepTo(const DirectorySnapshot& listing, std::string_view name);
  bool near(const DirectorySnapshot& listing, std::string_view name);
  void sortByInode(const DirectorySnapshot& listing);

  ScanOrder mOrder;
  std::string mLast;
  DirectorySnapshot mSorted;              ///< what the two below belong to
  std::vector<std::uint32_t> mSequence;   ///< position by inode -> by name
  std::vector<std::uint32_t> mPositions;  ///< and back
};

}  // namespace zor::client
