// The files that are worked on, with contents that can be checked.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "protocol/codec.h"
#include "support/unique_fd.h"
#include "work.h"

namespace zor::bench {

/// A temporary directory, removed with this object.
class Tree {
 public:
  /// Made in `parent`, and written to the disk, so that nothing of it is
  /// written later. Throws std::exception.
  explicit Tree(const std::filesystem::path& parent);
  ~Tree();
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  const std::filesystem::path& root() const noexcept { return mRoot; }
  /// A name for sockets and logs, outside of what is served.
  std::filesystem::path beside(const std::string& name) const { return mDirectory / name; }
  int rootFd() const noexcept { return mRootFd.get(); }

  // Paths relative to the root, as on a command line.
  static std::string fileName(std::uint64_t number);
  static constexpr std::string_view kFilesName = "files";
  static constexpr std::string_view kManyName = "many";
  static constexpr std::string_view kBigName = "big";
  static constexpr std::string_view kWrittenName = "written";

  /// Seeds of contents: small files have their numbers.
  static constexpr std::uint64_t kBigSeed = 1'000'000;

 private:
  void fill() const;

  std::filesystem::path mDirectory;
  std::filesystem::path mRoot;
  UniqueFd mRootFd;
};

/// The contents with this seed from `offset`, which is a multiple of 8.
void fillContents(std::span<std::byte> out, std::uint64_t seed, std::uint64_t offset);

/// Throws std::runtime_error when `data` is something else.
void expectContents(wire::Bytes data, std::uint64_t seed, std::uint64_t offset, std::uint64_t size);

/// Throws std::runtime_error.
void expect(bool condition, const char* what);

}  // namespace zor::bench
