#include "host/landlock.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "support/unique_fd.h"

namespace zor::host {
namespace {

// What headers as old as the oldest supported ones do not name. The kernel takes
// a structure that is longer than its own when the rest is zero.
struct RulesetAttributes {
  std::uint64_t files;
  std::uint64_t network;
  std::uint64_t scoped;
};
constexpr std::uint64_t kTruncate = std::uint64_t{1} << 14;
constexpr std::uint64_t kControlDevice = std::uint64_t{1} << 15;
constexpr std::uint64_t kTcpBindAndConnect = 3;
constexpr std::uint64_t kAbstractSocketsAndSignals = 3;

constexpr std::uint64_t kReading = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
// Special files cannot be made, the system-call filter sees to that, but those
// on the disk can be renamed, which needs the same right.
constexpr std::uint64_t kChanging =
    LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
    LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
    LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK |
    LANDLOCK_ACCESS_FS_MAKE_SYM | LANDLOCK_ACCESS_FS_REFER | kTruncate;

RulesetAttributes handledBy(int version) noexcept {
  RulesetAttributes handled{kReading | kChanging | LANDLOCK_ACCESS_FS_EXECUTE, 0, 0};
  if (version < 3) handled.files &= ~kTruncate;
  if (version >= 4) handled.network = kTcpBindAndConnect;
  if (version >= 5) handled.files |= kControlDevice;
  if (version >= 6) handled.scoped = kAbstractSocketsAndSignals;
  return handled;
}

template <class Result>
Result checked(Result result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

void allow(const UniqueFd& rules, const char* path, std::uint64_t access) {
  const UniqueFd place(checked(::open(path, O_PATH | O_CLOEXEC), path));
  landlock_path_beneath_attr rule{};
  rule.allowed_access = access;
  rule.parent_fd = place.get();
  checked(::syscall(SYS_landlock_add_rule, rules.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0),
          path);
}

}  // namespace

int restrictFiles(const std::string& directory, bool readOnly) {
  constexpr int kRenamesAcrossDirectories = 2;
  const int version = static_cast<int>(
      checked(::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION),
              "the kernel"));
  if (version < kRenamesAcrossDirectories) {
    throw std::system_error(ENOTSUP, std::generic_category(), "renaming across directories");
  }
  const RulesetAttributes handled = handledBy(version);
  const UniqueFd rules(static_cast<int>(checked(
      ::syscall(SYS_landlock_create_ruleset, &handled, sizeof handled, 0), "the set of rules")));
  allow(rules, directory.c_str(), handled.files & (readOnly ? kReading : kReading | kChanging));
  // Every trace event takes its id from there.
  allow(rules, "/dev/urandom", LANDLOCK_ACCESS_FS_READ_FILE);
#ifdef UDISK_LEAK_CHECKER
  allow(rules, "/proc", kReading);
#endif
  checked(::syscall(SYS_landlock_restrict_self, rules.get(), 0), "the restriction");
  return version;
}

}  // namespace zor::host
