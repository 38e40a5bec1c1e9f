#include "tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace zor::bench {

namespace fs = std::filesystem;

namespace {

/// A well mixed value of each place; cheap enough for large files.
std::uint64_t contentsWord(std::uint64_t seed, std::uint64_t index) {
  std::uint64_t word = (seed << 40) + index + 1;
  word = (word ^ (word >> 30)) * 0xbf58476d1ce4e5b9U;
  word = (word ^ (word >> 27)) * 0x94d049bb133111ebU;
  return word ^ (word >> 31);
}

UniqueFd makeFile(const fs::path& path) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!fd) throw std::system_error(errno, std::generic_category(), path.string());
  return fd;
}

void put(const UniqueFd& fd, wire::Bytes bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(fd.get(), bytes.data(), bytes.size());
    if (count <= 0) throw std::system_error(errno, std::generic_category(), "write");
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
}

}  // namespace

Tree::Tree(const fs::path& parent) {
  std::string pattern = (parent / "udisk-peers-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), pattern);
  }
  mDirectory = pattern;
  mRoot = mDirectory / "disk";
  try {
    fill();
    mRootFd = UniqueFd(::open(mRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!mRootFd) throw std::system_error(errno, std::generic_category(), mRoot.string());
  } catch (...) {
    std::error_code ignored;
    fs::remove_all(mDirectory, ignored);
    throw;
  }
}

Tree::~Tree() {
  std::error_code ignored;
  fs::remove_all(mDirectory, ignored);
}

std::string Tree::fileName(std::uint64_t number) {
  const std::string digits = std::to_string(10'000 + number);
  return std::string(kFilesName) + "/file" + digits.substr(1);
}

void Tree::fill() const {
  fs::create_directories(mRoot / kFilesName);
  fs::create_directory(mRoot / kManyName);
  std::vector<std::byte> block(kMiB);
  for (unsigned i = 0; i < kFiles; ++i) {
    const std::span<std::byte> contents(block.data(), kFileSize);
    fillContents(contents, i, 0);
    put(makeFile(mRoot / fileName(i)), contents);
  }
  for (unsigned i = 0; i < kManyEntries; ++i) {
    makeFile(mRoot / kManyName / ("name" + std::to_string(i)));
  }
  for (const std::string_view name : {kBigName, kWrittenName}) {
    const UniqueFd big = makeFile(mRoot / name);
    for (std::uint64_t at = 0; at < kBigSize; at += block.size()) {
      fillContents(block, kBigSeed, at);
      put(big, block);
    }
    if (::fsync(big.get()) != 0) throw std::system_error(errno, std::generic_category(), "fsync");
  }
}

void fillContents(std::span<std::byte> out, std::uint64_t seed, std::uint64_t offset) {
  for (std::size_t at = 0; at < out.size(); at += sizeof(std::uint64_t)) {
    const std::uint64_t word = contentsWord(seed, (offset + at) / sizeof word);
    std::memcpy(out.data() + at, &word, std::min(sizeof word, out.size() - at));
  }
}

void expectContents(wire::Bytes data, std::uint64_t seed, std::uint64_t offset,
                    std::uint64_t size) {
  expect(data.size() == size, "the amount of data");
  std::vector<std::byte> right(data.size());
  fillContents(right, seed, offset);
  expect(std::memcmp(right.data(), data.data(), data.size()) == 0, "the contents of a file");
}

void expect(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string(what) + " is not what it should be");
}

}  // namespace zor::bench
