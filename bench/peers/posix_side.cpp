#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "side.h"

namespace zor::bench {

namespace {

class PosixSide final : public Side {
 public:
  explicit PosixSide(int root) : Side(root, 2) {}

  double attributes(const Run& run) override {
    return each(run, [&](std::uint64_t item) {
      struct stat status {};
      const int result =
          ::fstatat(mRoot, mFiles[item % kFiles].c_str(), &status, AT_SYMLINK_NOFOLLOW);
      expect(result == 0 && status.st_size == kFileSize, "the size of a file");
    });
  }

  double wholeFiles(const Run& run) override {
    return each(run, [&](std::uint64_t item) {
      const std::string& name = mFiles[item % kFiles];
      const UniqueFd file = open(name, O_RDONLY);
      expect(::read(file.get(), mBuffer.data(), kFileSize) == kFileSize, "the size of a file");
      if (run.checked) expectContents(wire::Bytes(mBuffer).first(kFileSize), name, 0);
    });
  }
  double batches(const Run& run) override { return wholeFiles(run); }

  double reads(const Run& run) override {
    const UniqueFd file = open(kBigName, O_RDONLY);
    return mebibytes(run, [&](std::uint64_t item) {
      const std::uint64_t offset = item * run.size % kBigSize;
      const ssize_t got = ::pread(file.get(), mBuffer.data(), run.size, static_cast<off_t>(offset));
      expect(got == run.size, "the size of what was read");
      if (run.checked) expectContents(wire::Bytes(mBuffer).first(run.size), kBigName, offset);
    });
  }

  double writes(const Run& run) override { return write(run, run.size); }
  double chunks(const Run& run) override { return write(run, kChunkDistance); }

  double listings(const Run& run) override { return list(run, kFilesName, kFiles); }
  double unchanged(const Run& run) override { return list(run, kManyName, kManyEntries); }

 private:
  template <class Item>
  static double each(const Run& run, Item item) {
    std::uint64_t count = 0;
    do item(count);
    while (!run.until.over(++count));
    return static_cast<double>(count);
  }
  template <class Item>
  static double mebibytes(const Run& run, Item item) {
    return bench::mebibytes(static_cast<std::uint64_t>(each(run, item)), run.size);
  }

  UniqueFd open(std::string_view name, int flags) const {
    UniqueFd file(::openat(mRoot, name.data(), flags | O_CLOEXEC));
    expect(static_cast<bool>(file), "a name");
    return file;
  }

  double write(const Run& run, std::uint64_t distance) const {
    const UniqueFd file = open(kWrittenName, O_WRONLY);
    return mebibytes(run, [&](std::uint64_t item) {
      const auto offset = static_cast<off_t>(item * distance % kBigSize);
      expect(::pwrite(file.get(), data(run.size).data(), run.size, offset) == run.size,
             "the result of a write");
    });
  }

  double list(const Run& run, std::string_view name, unsigned entries) const {
    return each(run, [&](std::uint64_t) {
      DIR* directory = ::fdopendir(open(name, O_RDONLY | O_DIRECTORY).release());
      unsigned found = 0;
      while (const dirent* entry = ::readdir(directory)) {
        struct stat status {};
        found += ::fstatat(::dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
      }
      ::closedir(directory);
      expect(found == entries + 2, "the number of entries");
    });
  }

  std::vector<std::byte> mBuffer = std::vector<std::byte>(kMiB);
};

}  // namespace

std::unique_ptr<Side> makePosixSide(int root) { return std::make_unique<PosixSide>(root); }

}  // namespace zor::bench
