#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "side.h"

namespace zor::bench {

namespace {

class PosixSide final : public Side {
 public:
  explicit PosixSide(const Tree& tree) : mTree(tree), mBuffer(kMiB), mData(kMiB) {
    for (unsigned i = 0; i < kFiles; ++i) mFiles.push_back(Tree::fileName(i));
    fillContents(mData, writtenSeed(), 0);
  }

  std::string_view name() const override { return "posix"; }
  std::uint64_t writtenSeed() const override { return 5'000'000; }

  double run(const WorkTraits& work, const Until& until, bool checked) override {
    const auto files = [&](auto each) {
      std::uint64_t count = 0;
      do each(count % kFiles);
      while (!until.over(++count));
      return static_cast<double>(count);
    };
    const auto pieces = [&](std::string_view name, int flags, std::uint64_t distance, auto each) {
      std::uint64_t count = 0;
      const UniqueFd file = open(name, flags);
      do each(file, count * distance % kBigSize);
      while (!until.over(++count));
      return static_cast<double>(count * work.size) / static_cast<double>(kMiB);
    };
    switch (work.work) {
      case Work::kAttributes:
        return files([&](std::uint64_t number) {
          struct stat status {};
          const int result =
              ::fstatat(mTree.rootFd(), mFiles[number].c_str(), &status, AT_SYMLINK_NOFOLLOW);
          expect(result == 0 && status.st_size == kFileSize, "the size of a file");
        });
      case Work::kWholeFile:
      case Work::kFileBatch:
        return files([&](std::uint64_t number) {
          const UniqueFd file = open(mFiles[number], O_RDONLY);
          expect(::read(file.get(), mBuffer.data(), kFileSize) == kFileSize, "the size of a file");
          if (checked) expectContents(have(kFileSize), number, 0, kFileSize);
        });
      case Work::kRead:
        return pieces(
            Tree::kBigName, O_RDONLY, work.size, [&](const UniqueFd& file, std::uint64_t offset) {
              const ssize_t got =
                  ::pread(file.get(), mBuffer.data(), work.size, static_cast<off_t>(offset));
              expect(got == work.size, "the size of what was read");
              if (checked) {
                expectContents(have(work.size), Tree::kBigSeed, offset, work.size);
              }
            });
      case Work::kWrite:
      case Work::kWriteChunks:
        return pieces(
            Tree::kWrittenName, O_WRONLY, work.work == Work::kWrite ? work.size : kChunkDistance,
            [&](const UniqueFd& file, std::uint64_t offset) {
              const ssize_t put =
                  ::pwrite(file.get(), mData.data(), work.size, static_cast<off_t>(offset));
              expect(put == work.size, "the result of a write");
            });
      case Work::kListing:
        return listings(Tree::kFilesName, kFiles, until);
      case Work::kUnchanged:
        return listings(Tree::kManyName, kManyEntries, until);
    }
    return 0;
  }

 private:
  UniqueFd open(std::string_view name, int flags) const {
    UniqueFd file(::openat(mTree.rootFd(), name.data(), flags | O_CLOEXEC));
    expect(static_cast<bool>(file), "a name");
    return file;
  }

  wire::Bytes have(std::size_t size) const { return wire::Bytes(mBuffer).first(size); }

  double listings(std::string_view name, unsigned entries, const Until& until) const {
    std::uint64_t count = 0;
    do {
      UniqueFd fd = open(name, O_RDONLY | O_DIRECTORY);
      DIR* directory = ::fdopendir(fd.release());
      unsigned found = 0;
      while (const dirent* entry = ::readdir(directory)) {
        struct stat status {};
        const int result =
            ::fstatat(::dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW);
        found += result == 0 ? 1 : 0;
      }
      ::closedir(directory);
      expect(found == entries + 2, "the number of entries");
    } while (!until.over(++count));
    return static_cast<double>(count);
  }

  const Tree& mTree;
  std::vector<std::byte> mBuffer;
  std::vector<std::byte> mData;
  std::vector<std::string> mFiles;
};

}  // namespace

std::unique_ptr<Side> makePosixSide(const Tree& tree) { return std::make_unique<PosixSide>(tree); }

}  // namespace zor::bench
