// Keeping signals away for a while.
#pragma once

#include <csignal>

namespace zor::host {

/// The signals that have a meaning to the host wait while this object lives: for the calling
/// thread, and for the threads and processes that it starts meanwhile.
class SignalsBlocked {
 public:
  SignalsBlocked() noexcept {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) ::sigaddset(&signals, signal);
    ::pthread_sigmask(SIG_BLOCK, &signals, &mOld);
  }
  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &mOld, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t mOld;
};

}  // namespace zor::host
