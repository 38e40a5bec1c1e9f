#include "mount/signals.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "mount/session.h"

namespace zor::client::mount {
namespace {

sigset_t taken() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) sigaddset(&set, signal);
  return set;
}

}  // namespace

void blockSignals() {
  sigset_t set = taken();
  sigaddset(&set, Session::kWakeup);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
}

Signals::Signals() : mThread([this] { run(); }) {}

Signals::~Signals() {
  {
    const MutexLock lock(mMutex);
    mStop = true;
  }
  ::pthread_kill(mThread.native_handle(), SIGUSR1);
  mThread.join();
}

void Signals::handle(std::function<void()> end, std::function<void()> print) {
  const MutexLock lock(mMutex);
  mEnd = std::move(end);
  mPrint = std::move(print);
}

void Signals::run() {
  const sigset_t set = taken();
  for (;;) {
    int signal = 0;
    if (::sigwait(&set, &signal) != 0) continue;
    const MutexLock lock(mMutex);
    if (mStop) return;
    if (signal == SIGUSR1) {
      if (mPrint) mPrint();
    } else if (mEnd) {
      mEnd();
    } else {
      ::_exit(128 + signal);  // nothing is mounted yet
    }
  }
}

}  // namespace zor::client::mount
