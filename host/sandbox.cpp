#include "host/sandbox.h"

#include <linux/capability.h>
#include <spdlog/spdlog.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "host/landlock.h"
#include "host/system_call_filter.h"
#include "support/printable.h"

namespace zor::host {
namespace {

[[noreturn]] void failedCall(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void giveUpNewPrivileges() {
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) failedCall("the kernel");
}

// Root goes on serving everybody's files, and nothing else. The disk's last
// blocks stay root's, too.
void giveUpCapabilities() {
  constexpr std::uint32_t kKept = 1U << CAP_CHOWN | 1U << CAP_DAC_OVERRIDE | 1U << CAP_FOWNER |
                                  1U << CAP_FSETID | 1U << CAP_SYS_RESOURCE;
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct halves[_LINUX_CAPABILITY_U32S_3] = {};
  if (::syscall(SYS_capget, &header, halves) != 0) failedCall("the kernel");
  halves[0].permitted &= kKept;
  halves[0].effective &= kKept;
  halves[0].inheritable = 0;
  halves[1] = {};
  if (::syscall(SYS_capset, &header, halves) != 0) failedCall("the kernel");
}

// A thread that the module began while it was loaded would stay free.
void requireSingleThread() {
#ifndef UDISK_SANITIZED  // some sanitizers have a thread of their own
  const auto threads = std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                     std::filesystem::directory_iterator());
  if (threads != 1) throw std::runtime_error("the module has threads already");
#endif
}

class Report {
 public:
  template <class Step>
  void take(const char* name, Step step) {
    try {
      step();
      add(mHolding, name);
    } catch (const std::exception& error) {
      add(mMissing, std::string(name) + " (" + error.what() + ")");
    }
  }
  void addDetail(const std::string& detail) { mHolding += " " + detail; }
  const std::string& holding() const noexcept { return mHolding; }
  const std::string& missing() const noexcept { return mMissing; }

 private:
  static void add(std::string& list, const std::string& name) {
    list += (list.empty() ? "" : ", ") + name;
  }

  std::string mHolding, mMissing;
};

}  // namespace

bool confine(SandboxMode mode, const std::string& directory, bool readOnly) {
  ::tzset();  // the log's times need a file that is out of reach afterwards
  Report report;
  int version = 0;
  report.take("every thread", requireSingleThread);
  report.take("no new privileges", giveUpNewPrivileges);
  report.take("few capabilities", giveUpCapabilities);
  report.take("Landlock", [&] {
    version = restrictFiles(directory, readOnly);
    if (version < kCompleteLandlock) {
      throw std::runtime_error("version " + std::to_string(version) + " only");
    }
  });
  if (version >= kCompleteLandlock) report.addDetail(std::to_string(version));
  report.take("filtered system calls", filterSystemCalls);
  if (report.missing().empty()) {
    spdlog::info("confined to {}: {}", printable(directory), report.holding());
    return true;
  }
  if (mode == SandboxMode::kRequired) {
    throw std::runtime_error("cannot be confined, without: " + report.missing());
  }
  spdlog::warn("confined in part: {}; without: {}", report.holding(), report.missing());
  return version != 0;
}

}  // namespace zor::host
