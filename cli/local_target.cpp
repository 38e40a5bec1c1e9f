#include "cli/local_target.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "client/exchange.h"
#include "client/remote_path.h"

namespace zor::client::cli {

namespace {

using exchange::refused;

bool isStream(const struct stat& status) {
  return S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode);
}

Result<LocalTarget> openStream(const LocalDir& dir, const std::string& name) {
  UniqueFd fd(::openat(dir.fd(), name.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) return localError();
  if (!isStream(status)) return refused("it has become something else");
  return LocalTarget{nullptr, {}, std::move(fd)};
}

/// The regular file at the end of a link.
Result<LocalTarget> followLink(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> found(::realpath(path.c_str(), nullptr), ::free);
  if (!found) return localError();
  const std::string end(found.get());
  auto dir = LocalDir::open(parentPath(end));
  if (!dir) return std::move(dir.error());
  return LocalTarget{std::move(*dir), std::string(baseName(end)), UniqueFd()};
}

}  // namespace

Result<LocalTarget> openTarget(std::shared_ptr<LocalDir> dir, const std::string& dirPath,
                               const std::string& name) {
  struct stat own {};
  struct stat end {};
  if (::fstatat(dir->fd(), name.c_str(), &own, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) return localError();
    return LocalTarget{std::move(dir), name, UniqueFd()};
  }
  if (::fstatat(dir->fd(), name.c_str(), &end, 0) != 0) {
    if (errno == ENOENT) return refused("it is a symbolic link to nothing");
    return localError();
  }
  if (isStream(end)) return openStream(*dir, name);
  if (const Status status = checkReplaceable(end.st_mode); !status) return status.error();
  if (S_ISLNK(own.st_mode)) return followLink(joinPath(dirPath, name));
  return LocalTarget{std::move(dir), name, UniqueFd()};
}

std::optional<LocalTarget> standardOutput(const std::string& path) {
  if (path != "-" && path != "/dev/stdout") return std::nullopt;
  return LocalTarget{nullptr, {}, UniqueFd(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0))};
}

}  // namespace zor::client::cli
