// How a lost connection is replaced. All of it runs on the transport's own
// thread, which sleeps while the connection serves.
#include <algorithm>
#include <system_error>
#include <utility>

#include "client/disk.h"
#include "client/durable_link.h"

namespace zor::client {

namespace {

constexpr std::chrono::milliseconds kFirstPause{50};
constexpr std::chrono::milliseconds kMaxPause{1000};

}  // namespace

void DurableLink::run() {
  Lock lock(mMutex);
  while (!mStop) {
    if (mGivenUp && !mEnded) {
      end(lock);
    } else if (mLink != nullptr || (mEnded && mTasks.empty())) {
      mWork.wait(lock);
    } else if (mStage == Stage::kServing) {
      recover(lock);
    } else if (!mTasks.empty()) {
      runTasks(lock);
    } else if (!mExpired && Clock::now() - mLostAt >= mOptions.timeout) {
      expire();
    } else {
      advance(lock);
    }
  }
  end(lock);
  while (!mTasks.empty()) runTasks(lock);
}

void DurableLink::end(Lock& lock) {
  mEnded = true;
  mLink = nullptr;
  mStage = Stage::kPausing;
  dropConnection(lock);
  mReason = "the connection was closed on this side";
  expire();
}

void DurableLink::recover(Lock& lock) {
  // Once it is gone, its thread runs no more completions, so that this one may.
  dropConnection(lock);
  mStage = Stage::kPausing;
  if (mProgress) {
    mPause = kFirstPause;
    mNextAttempt = Clock::now();
  } else {
    pause();
  }
  report(lock, "the connection to the host is lost: " + mReason);
}

void DurableLink::advance(Lock& lock) {
  if (mStage == Stage::kPausing) {
    if (Clock::now() >= mNextAttempt) return startAttempt(lock);
    return wait(lock, mNextAttempt);
  }
  if (mBroken || Clock::now() >= mAttemptEnd) return giveUpAttempt(lock);
  if (mStage == Stage::kGreeting && mAnnounced) return probe(lock);
  if (mStage == Stage::kProbing && mProbe) return judgeProbe(lock);
  wait(lock, mAttemptEnd);
}

void DurableLink::wait(Lock& lock, Clock::time_point until) {
  if (!mExpired) until = std::min(until, mLostAt + mOptions.timeout);
  mWork.wait_until(lock, until);
}

void DurableLink::startAttempt(Lock& lock) {
  mBroken = false;
  mAnnounced = false;
  mProbe.reset();
  lock.unlock();
  std::unique_ptr<Connection> started;
  std::string refusal;
  try {
    Result<std::unique_ptr<Connection>> connection = Connection::start(connectionOptions());
    if (connection) {
      started = std::move(*connection);
    } else if (connection.error().kind == ErrorKind::kRefused) {
      refusal = connection.error().message;
    }
  } catch (const std::system_error&) {
    // Descriptors or threads are short: as good as no host.
  }
  lock.lock();
  if (!refusal.empty()) return refuse(lock, refusal);
  if (!started) return pause();
  mConnection = std::move(started);
  mStage = Stage::kGreeting;
  mAttemptEnd = Clock::now() + mOptions.timeout;
}

void DurableLink::probe(Lock& lock) {
  if (!mConnection->finish(std::chrono::milliseconds(0))) return giveUpAttempt(lock);
  if (mConnection->announcement().name != mAnnouncement.name) {
    return refuse(lock, "another disk is served there now");
  }
  mStage = Stage::kProbing;
  queryIdentity(Disk(mConnection->link()), [this](Result<DiskIdentity> identity) {
    const std::lock_guard guard(mMutex);
    mProbe.emplace(std::move(identity));
    mWork.notify_one();
  });
}

void DurableLink::judgeProbe(Lock& lock) {
  const Result<DiskIdentity> identity = *mProbe;
  if (identity) {
    if (*identity == mIdentity) return activate(lock);
    return refuse(lock, "another disk is served there now");
  }
  if (identity.error().kind == ErrorKind::kLinkLost) return giveUpAttempt(lock);
  refuse(lock, "the disk that is served there now cannot be read");
}

void DurableLink::activate(Lock& lock) {
  mStage = Stage::kServing;
  mExpired = false;
  mRefusal.clear();
  mProgress = mQueue.empty();
  mLink = &mConnection->link();
  mSmallFiles = mLink->servesSmallFiles();
  mMetrics.reconnected();
  for (auto& task : mTasks) mLink->post(std::move(task));
  mTasks.clear();
  for (auto kept = mQueue.begin(); kept != mQueue.end();) {
    const auto each = kept++;
    if (each->request.command == wire::Command::kSmallFileRead && !mSmallFiles) {
      // A host that does not know the command would never answer.
      mLink->post([done = std::move(each->done)] {
        done(Error{ErrorKind::kFailed, "the host reads no batches of files any more"});
      });
      mQueue.erase(each);
    } else {
      handOver(each);
    }
  }
  report(lock, "connected to the host again");
}

void DurableLink::refuse(Lock& lock, const std::string& reason) {
  giveUpAttempt(lock);
  if (std::exchange(mRefusal, reason) != reason) report(lock, reason);
}

void DurableLink::giveUpAttempt(Lock& lock) {
  dropConnection(lock);
  mStage = Stage::kPausing;
  pause();
}

void DurableLink::pause() {
  mNextAttempt = Clock::now() + mPause;
  mPause = std::min(mPause * 2, kMaxPause);
}

void DurableLink::expire() {
  mExpired = true;
  for (Kept& kept : mQueue) {
    mTasks.push_back([done = std::move(kept.done), reason = mReason] {
      done(Error{ErrorKind::kLinkLost, reason});
    });
  }
  mQueue.clear();
}

void DurableLink::dropConnection(Lock& lock) {
  std::unique_ptr<Connection> old = std::move(mConnection);
  lock.unlock();
  old.reset();
  lock.lock();
}

void DurableLink::runTasks(Lock& lock) {
  std::vector<std::function<void()>> tasks = std::exchange(mTasks, {});
  lock.unlock();
  for (auto& task : tasks) task();
  tasks.clear();
  lock.lock();
}

void DurableLink::report(Lock& lock, const std::string& clause) {
  if (!mOptions.report) return;
  lock.unlock();
  mOptions.report(clause);
  lock.lock();
}

}  // namespace zor::client
