// Keeping the signals that end the host away for a while.
#pragma once

#include <csignal>

namespace zor::host {

/// SIGINT and SIGTERM wait while this object lives: for the calling thread, and
/// for the threads that it starts meanwhile.
class SignalsBlocked {
 public:
  SignalsBlocked() noexcept {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, &mOld);
  }
  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &mOld, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t mOld;
};

}  // namespace zor::host
