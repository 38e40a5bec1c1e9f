// A mounted file system.
#pragma once

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <string>

#include "client/result.h"
#include "mount/fuse.h"
#include "mount/options.h"

namespace zor::client::mount {

class Session {
 public:
  /// `userData` goes to the operations; `mountPoint` is absolute. The error is a
  /// clause for people.
  static Result<std::unique_ptr<Session>, std::string> create(FuseArguments arguments,
                                                              const fuse_lowlevel_ops& operations,
                                                              void* userData,
                                                              std::string mountPoint);
  /// Unmounts.
  ~Session();

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Returns the reason of a failure, or nothing.
  std::string mount();

  /// Serves until the file system is unmounted or `end` was called; an error
  /// number otherwise, else 0. On the thread that created the session, with the
  /// signal kWakeup blocked.
  int run(const MountOptions& options);

  /// Makes `run` return. From another thread, at any time; waits until it has or
  /// `giveUp` was called. An unused file system is unmounted in order, so that the kernel
  /// flushes its buffers; a used one is taken away from its programs.
  void end();

  /// `run` will not be called any more.
  void giveUp() noexcept { mEnded = true; }

  void unmount();

  /// For notifications to the kernel; as long as this object lives.
  fuse_session* handle() const noexcept { return mSession; }

  static constexpr int kWakeup = SIGUSR2;

 private:
  Session(fuse_session* session, std::string mountPoint)
      : mSession(session), mMountPoint(std::move(mountPoint)), mServer(::pthread_self()) {}

  fuse_session* mSession;
  const std::string mMountPoint;
  const pthread_t mServer;
  std::atomic<bool> mMounted{false};
  std::atomic<bool> mEnded{false};
};

}  // namespace zor::client::mount
