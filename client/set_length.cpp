#include "client/set_length.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <limits>
#include <random>

#include "client/exchange.h"
#include "client/remote_path.h"

namespace zor::client {

namespace {

Status grow(Disk& disk, const std::string& path, std::uint64_t length) {
  if (length <= kTruncateLimit) return disk.truncate(path, length);
  Buffer zero(1);
  *zero.data() = std::byte{0};
  return disk.write(path, static_cast<std::int64_t>(length - 1), std::move(zero));
}

/// Queries the names after a rename without an answer, to find out whether it was done.
Status renameSurely(Disk& disk, const std::string& from, const std::string& to) {
  constexpr int kMaxAttempts = 10;
  for (int attempt = 1;; ++attempt) {
    Status status = disk.rename(from, to);
    if (status || attempt == kMaxAttempts) return status;
    const ErrorKind kind = status.error().kind;
    if (kind != ErrorKind::kLinkLost && kind != ErrorKind::kUnanswered) return status;
    const Result<udisk_stat> target = disk.attributes(to);
    if (!target && target.error().kind != ErrorKind::kFailed) return status;
    const Result<udisk_stat> source = disk.attributes(from);
    if (!source && source.error().kind != ErrorKind::kFailed) return status;
    if (!source && target) return Unit{};
    if (!source) return status;
  }
}

Status shrinkUnderOtherName(Disk& disk, const std::string& path, std::uint64_t length) {
  std::random_device random;
  const std::string other =
      joinPath(parentPath(path), ".udisk-" + std::to_string(random()) + ".tmp");
  const Result<udisk_stat> taken = disk.attributes(other);
  if (taken) return exchange::failed("'" + other + "' is in the way");
  if (taken.error().kind != ErrorKind::kFailed) return taken.error();
  Status status = renameSurely(disk, path, other);
  if (!status) return status;
  status = disk.truncate(other, length);
  if (Status back = renameSurely(disk, other, path); !back) {
    return exchange::failed("the file is called '" + other + "' now, because " +
                            back.error().message);
  }
  return status;
}

}  // namespace

bool hasUnlimitedName(std::string_view path) {
  constexpr std::array<std::string_view, 6> kSuffixes{".doc", ".xls", ".tmp",
                                                      ".ppt", ".vsd", ".spp"};
  const std::size_t dot = path.rfind('.');
  return dot != std::string_view::npos &&
         std::find(kSuffixes.begin(), kSuffixes.end(), path.substr(dot, 4)) != kSuffixes.end();
}

Status setLength(Disk& disk, const std::string& path, std::uint64_t length) {
  if (length > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return Error{ErrorKind::kRefused, "no file can be that long"};
  }
  const Result<udisk_stat> before = disk.attributes(path);
  if (!before) return before.error();
  if (!S_ISREG(before->st_mode)) {
    return Error{ErrorKind::kRefused, "only regular files have a length that can be set"};
  }
  Status status = Unit{};
  if (static_cast<std::int64_t>(length) > before->st_size) {
    status = grow(disk, path, length);
  } else if (length <= kTruncateLimit || hasUnlimitedName(path)) {
    status = disk.truncate(path, length);
  } else if (static_cast<std::int64_t>(length) < before->st_size) {
    status = shrinkUnderOtherName(disk, path, length);
  }
  if (!status) return status;
  const Result<udisk_stat> after = disk.attributes(path);
  if (!after) return after.error();
  if (after->st_size != static_cast<std::int64_t>(length)) {
    return exchange::failed("the file has " + std::to_string(after->st_size) + " bytes now");
  }
  return Unit{};
}

}  // namespace zor::client
