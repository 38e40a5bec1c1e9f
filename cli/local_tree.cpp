#include "cli/local_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "cli/format.h"
#include "client/listing.h"

namespace zor::client::cli {

namespace {

constexpr std::size_t kHoleUnit = std::size_t{64} << 10;

bool isZero(wire::Bytes bytes) {
  return bytes.front() == std::byte{0} &&
         std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0;
}

Error madeMeanwhile() { return {ErrorKind::kRefused, "another program has made it meanwhile"}; }

/// The permission bits that new files do not get.
mode_t fileMask() {
  static const mode_t mask = [] {
    const mode_t own = ::umask(077);
    ::umask(own);
    return own;
  }();
  return mask;
}

/// The last modification of `like`, and no change of the last access.
std::array<timespec, 2> fileTimes(const udisk_stat& like) {
  const bool usable = like.st_mtim.tv_nsec >= 0 && like.st_mtim.tv_nsec < 1'000'000'000;
  return {timespec{0, UTIME_OMIT}, timespec{static_cast<std::time_t>(like.st_mtim.tv_sec),
                                            static_cast<long>(usable ? like.st_mtim.tv_nsec : 0)}};
}

}  // namespace

void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));
}

Status checkReplaceable(mode_t mode) {
  if (S_ISREG(mode)) return Unit{};
  return Error{ErrorKind::kRefused, "a " + std::string(typeName(mode)) + " is in its place"};
}

Error localError() { return {ErrorKind::kFailed, strerror(errno)}; }

Result<std::shared_ptr<LocalDir>> LocalDir::open(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return localError();
  return std::shared_ptr<LocalDir>(new LocalDir(std::move(fd), nullptr));
}

Result<std::shared_ptr<LocalDir>> LocalDir::make(std::shared_ptr<LocalDir> parent,
                                                 const std::string& name, const udisk_stat& like) {
  if (::mkdirat(parent->fd(), name.c_str(), 0700) != 0 && errno != EEXIST) return localError();
  UniqueFd fd(
      ::openat(parent->fd(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return localError();
  std::shared_ptr<LocalDir> dir(new LocalDir(std::move(fd), std::move(parent)));
  dir->mLike = like;
  return dir;
}

Result<std::shared_ptr<LocalDir>> LocalDir::enter(const LocalDir& parent, const std::string& name) {
  UniqueFd fd(::openat(parent.fd(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return localError();
  return std::shared_ptr<LocalDir>(new LocalDir(std::move(fd), nullptr));
}

Result<std::vector<std::string>> LocalDir::names() const {
  UniqueFd own(::fcntl(fd(), F_DUPFD_CLOEXEC, 0));
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(own ? ::fdopendir(own.get()) : nullptr, ::closedir);
  if (!dir) return localError();
  own.release();
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    if (!isDotEntry(entry->d_name)) names.emplace_back(entry->d_name);
  }
  if (errno != 0) return localError();
  std::sort(names.begin(), names.end());
  return names;
}

LocalDir::~LocalDir() {
  --sCount;
  if (!mLike) return;
  // Best effort: some file systems have neither.
  static_cast<void>(::fchmod(fd(), mLike->st_mode & 0777U & ~fileMask()));
  const auto times = fileTimes(*mLike);
  static_cast<void>(::futimens(fd(), times.data()));
}

Result<std::unique_ptr<PartialFile>> PartialFile::create(std::shared_ptr<LocalDir> dir,
                                                         std::string name, bool mustBeNew) {
  static std::atomic<unsigned> counter{0};
  std::unique_ptr<PartialFile> file(new PartialFile(std::move(dir), std::move(name)));
  if (Status status = file->findReplaced(); !status) return std::move(status.error());
  if (mustBeNew && file->mReplaced) return madeMeanwhile();
  while (!file->mFd) {
    const std::string temporary =
        ".udisk-remote." + std::to_string(::getpid()) + "." + std::to_string(++counter) + ".part";
    file->mFd = UniqueFd(::openat(file->mDir->fd(), temporary.c_str(),
                                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file->mFd) {
      file->mTemporary = temporary;
    } else if (errno != EEXIST) {
      return localError();
    }
  }
  return file;
}

PartialFile::~PartialFile() {
  if (!mTemporary.empty()) ::unlinkat(mDir->fd(), mTemporary.c_str(), 0);
}

Status PartialFile::writeAt(std::int64_t offset, wire::Bytes bytes) {
  // Neighbouring units with data are written with one call.
  std::size_t begin = 0;
  std::size_t end = 0;
  while (end < bytes.size()) {
    const std::size_t inUnit = (static_cast<std::uint64_t>(offset) + end) % kHoleUnit;
    const std::size_t unit = std::min(kHoleUnit - inUnit, bytes.size() - end);
    const bool hole = isZero(bytes.subspan(end, unit));
    if (hole && end > begin) {
      Status status =
          writeFully(offset + static_cast<std::int64_t>(begin), bytes.subspan(begin, end - begin));
      if (!status) return status;
    }
    end += unit;
    if (hole) begin = end;
  }
  return writeFully(offset + static_cast<std::int64_t>(begin), bytes.subspan(begin));
}

Status PartialFile::writeFully(std::int64_t offset, wire::Bytes bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(mFd.get(), bytes.data(), bytes.size(), offset);
    if (written < 0 && errno != EINTR) return localError();
    if (written > 0) {
      offset += written;
      bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
  }
  return Unit{};
}

Status PartialFile::findReplaced() {
  struct stat found {};
  if (::fstatat(mDir->fd(), mName.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Status(Unit{}) : Status(localError());
  }
  if (!S_ISLNK(found.st_mode)) {
    if (Status status = checkReplaceable(found.st_mode); !status) return status;
  }
  mReplaced = found;
  return Unit{};
}

Status PartialFile::commit(const udisk_stat& like) {
  const auto times = fileTimes(like);
  const bool wasThere = mReplaced.has_value();
  if (Status status = findReplaced(); !status) return status;
  if (mReplaced && !wasThere) return madeMeanwhile();
  mode_t mode = like.st_mode & 0777U & ~fileMask();
  if (mReplaced && S_ISREG(mReplaced->st_mode)) {
    mode = mReplaced->st_mode & 0777U;
    // Best effort: only root may give files away.
    [[maybe_unused]] const int ignored = ::fchown(mFd.get(), mReplaced->st_uid, mReplaced->st_gid);
  }
  if (::ftruncate(mFd.get(), like.st_size) != 0) return localError();
  if (::fchmod(mFd.get(), mode) != 0) return localError();
  if (::futimens(mFd.get(), times.data()) != 0) return localError();
  if (::renameat2(mDir->fd(), mTemporary.c_str(), mDir->fd(), mName.c_str(),
                  wasThere ? 0U : unsigned{RENAME_NOREPLACE}) != 0 &&
      // Some file systems do not know the flag.
      (errno != EINVAL ||
       ::renameat(mDir->fd(), mTemporary.c_str(), mDir->fd(), mName.c_str()) != 0)) {
    return localError();
  }
  mTemporary.clear();
  return Unit{};
}

}  // namespace zor::client::cli
