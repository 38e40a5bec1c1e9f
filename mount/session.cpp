#include "mount/session.h"

#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <limits>
#include <thread>

#include "mount/messages.h"
#include "support/unique_fd.h"

namespace zor::client::mount {
namespace {

constexpr unsigned kUnlimited = std::numeric_limits<unsigned>::max();

void ignoreWakeup(int) {}

// Only fusermount3 may unmount for those who are not root.
void tryUnmount(const std::string& mountPoint) {
  if (::geteuid() == 0) {
    ::umount2(mountPoint.c_str(), UMOUNT_NOFOLLOW);
    return;
  }
  std::array<std::string, 4> words{"fusermount3", "-uq", "--", mountPoint};
  const std::array<char*, 5> arguments{words[0].data(), words[1].data(), words[2].data(),
                                       words[3].data(), nullptr};
  pid_t child = 0;
  if (::posix_spawnp(&child, "fusermount3", nullptr, nullptr, arguments.data(), environ) != 0) {
    return;
  }
  retryOnInterrupt([child] { return ::waitpid(child, nullptr, 0); });
}

}  // namespace

Result<std::unique_ptr<Session>, std::string> Session::create(FuseArguments arguments,
                                                              const fuse_lowlevel_ops& operations,
                                                              void* userData,
                                                              std::string mountPoint) {
  const FuseMessages messages;
  fuse_session* session =
      fuse_session_new(arguments.get(), &operations, sizeof operations, userData);
  if (session == nullptr) return messages.text();
  return std::unique_ptr<Session>(new Session(session, std::move(mountPoint)));
}

Session::~Session() {
  unmount();
  fuse_session_destroy(mSession);
}

std::string Session::mount() {
  const FuseMessages messages;
  if (fuse_session_mount(mSession, mMountPoint.c_str()) != 0) {
    const std::string text = messages.text();
    return text.empty() ? "the drive cannot be mounted there" : text;
  }
  mMounted = true;
  return {};
}

int Session::run(const MountOptions& options) {
  struct sigaction action {};
  action.sa_handler = ignoreWakeup;  // and no SA_RESTART: waiting calls are to return
  ::sigaction(kWakeup, &action, nullptr);
  sigset_t wakeup;
  sigemptyset(&wakeup);
  sigaddset(&wakeup, kWakeup);
  ::pthread_sigmask(SIG_UNBLOCK, &wakeup, nullptr);

  int result = 0;
  if (options.singleThread) {
    result = fuse_session_loop(mSession);
  } else {
    fuse_loop_config* config = fuse_loop_cfg_create();
    if (config == nullptr) throw std::bad_alloc();
    fuse_loop_cfg_set_max_threads(config, options.maxThreads);
    if (options.maxIdleThreads != kUnlimited) {
      // libfuse complains about its own default.
      if (options.maxIdleThreads != UINT_MAX) {
        fuse_loop_cfg_set_idle_threads(config, options.maxIdleThreads);
      }
    }
    fuse_loop_cfg_set_clone_fd(config, options.cloneFd ? 1 : 0);
    result = fuse_session_loop_mt(mSession, config);
    fuse_loop_cfg_destroy(config);
  }
  mEnded = true;
  return result < 0 ? -result : 0;
}

void Session::end() {
  if (mMounted) tryUnmount(mMountPoint);
  // A wake-up just before the loop begins to wait is lost, hence several.
  while (!mEnded) {
    fuse_session_exit(mSession);
    ::pthread_kill(mServer, kWakeup);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void Session::unmount() {
  if (mMounted.exchange(false)) fuse_session_unmount(mSession);
}

}  // namespace zor::client::mount
