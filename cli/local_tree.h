// Files and directories that are being made on this machine.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/result.h"
#include "protocol/disk_records.h"
#include "support/unique_fd.h"

namespace zor::client::cli {

/// An open directory. Names in it are used as they are, one component each, and
/// never followed when they are symbolic links.
class LocalDir {
 public:
  /// A directory that the user named.
  static Result<std::shared_ptr<LocalDir>> open(const std::string& path);

  /// `name` in `parent`, made when it does not exist. When the last user of the
  /// result is gone, and with it everything inside is made, the directory gets
  /// the permission bits and the modification time of `like`.
  static Result<std::shared_ptr<LocalDir>> make(std::shared_ptr<LocalDir> parent,
                                                const std::string& name, const udisk_stat& like);

  /// `name` in `parent`, which exists, for reading.
  static Result<std::shared_ptr<LocalDir>> enter(const LocalDir& parent, const std::string& name);

  ~LocalDir();

  LocalDir(const LocalDir&) = delete;
  LocalDir& operator=(const LocalDir&) = delete;

  int fd() const noexcept { return mFd.get(); }

  /// What is in it except "." and "..", sorted. Once for each object.
  Result<std::vector<std::string>> names() const;

  /// How many there are in the process.
  static unsigned count() noexcept { return sCount; }

 private:
  LocalDir(UniqueFd fd, std::shared_ptr<LocalDir> parent)
      : mFd(std::move(fd)), mParent(std::move(parent)) {
    ++sCount;
  }

  static inline std::atomic<unsigned> sCount{0};

  UniqueFd mFd;
  std::shared_ptr<LocalDir> mParent;  ///< completed after this one
  std::optional<udisk_stat> mLike;
};

/// Refuses what a file must not take the place of: all but regular files.
Status checkReplaceable(mode_t mode);

/// A file that appears under its name only when it is complete; until then it
/// has a name of its own beside it, which goes with this object. A regular file or
/// a link that has the name is replaced, and nothing else.
class PartialFile {
 public:
  /// Refused when `mustBeNew` and something has the name.
  static Result<std::unique_ptr<PartialFile>> create(std::shared_ptr<LocalDir> dir,
                                                     std::string name, bool mustBeNew);
  ~PartialFile();

  PartialFile(const PartialFile&) = delete;
  PartialFile& operator=(const PartialFile&) = delete;

  /// Leaves holes where `bytes` are long runs of zeros.
  Status writeAt(std::int64_t offset, wire::Bytes bytes);

  /// Gives it the size and modification time of `like`, its name, and the permission bits of
  /// the file that it replaces; if there is none, those of `like` under the umask. What got
  /// the name since `create` is not replaced.
  Status commit(const udisk_stat& like);

 private:
  PartialFile(std::shared_ptr<LocalDir> dir, std::string name)
      : mDir(std::move(dir)), mName(std::move(name)) {}
  Status findReplaced();
  Status writeFully(std::int64_t offset, wire::Bytes bytes);

  std::shared_ptr<LocalDir> mDir;
  std::string mName;
  std::string mTemporary;  ///< empty when there is none
  UniqueFd mFd;
  std::optional<struct stat> mReplaced;  ///< what has the name
};

/// Deep trees keep a descriptor open for each level.
void raiseDescriptorLimit();

/// The current `errno` as an error.
Error localError();

}  // namespace zor::client::cli
