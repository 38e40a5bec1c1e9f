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
  MutexLock lock(mMutex);
  while (mClosing != Closing::kDestroyed) {
    const bool ended = std::holds_alternative<Ended>(mState);
    if (mClosing == Closing::kGivenUp && !ended) {
      end();
    } else if (std::holds_alternative<Serving>(mState) || (ended && mTasks.empty())) {
      mWork.wait(mMutex);
    } else if (std::holds_alternative<Lost>(mState)) {
      recover();
    } else if (!mTasks.empty()) {
      runTasks();
    } else if (mDeadline && Clock::now() >= *mDeadline) {
      expire();
    } else {
      advance();
    }
  }
  end();
  while (!mTasks.empty()) runTasks();
}

void DurableLink::end() {
  dropConnection(Ended{});
  mReason = "the connection was closed on this side";
  expire();
}

void DurableLink::recover() {
  const bool answered = std::get<Lost>(mState).answered;
  // Once it is gone, its thread runs no more completions, so that this one may.
  dropConnection(Pausing{Clock::now()});
  if (answered) {
    mPause = kFirstPause;
  } else {
    pause();
  }
  report("the connection to the host is lost: " + mReason);
}

void DurableLink::advance() {
  if (const auto* pausing = std::get_if<Pausing>(&mState)) {
    return Clock::now() >= pausing->until ? startAttempt() : wait(pausing->until);
  }
  if (const auto* greeting = std::get_if<Greeting>(&mState);
      greeting && Clock::now() < greeting->end) {
    return greeting->announced ? identify(greeting->end) : wait(greeting->end);
  }
  if (const auto* asked = std::get_if<Identifying>(&mState); asked && Clock::now() < asked->end) {
    return asked->answer ? validateIdentity(Result<DiskIdentity>(*asked->answer))
                         : wait(asked->end);
  }
  endAttempt();
}

void DurableLink::wait(Clock::time_point until) {
  mWork.waitUntil(mMutex, mDeadline ? std::min(until, *mDeadline) : until);
}

void DurableLink::startAttempt() {
  const Clock::time_point end = Clock::now() + mOptions.timeout;
  mState = Greeting{end};
  mMutex.unlock();
  std::string refusal;
  try {
    Result<std::unique_ptr<Connection>> connection = Connection::start(connectionOptions());
    if (connection) {
      mConnection = std::move(*connection);
    } else if (connection.error().kind == ErrorKind::kRefused) {
      refusal = connection.error().message;
    }
  } catch (const std::system_error&) {
    // Descriptors or threads are short: as good as no host.
  }
  mMutex.lock();
  if (!refusal.empty()) return refuse(refusal);
  if (!mConnection) pause();
}

void DurableLink::identify(Clock::time_point end) {
  if (!mConnection->finish(std::chrono::milliseconds(0))) return endAttempt();
  if (mConnection->announcement().name != mAnnouncement.name) {
    return refuse("another disk is served there now");
  }
  mState = Identifying{end};
  queryIdentity(Disk(mConnection->link()), [this](Result<DiskIdentity> identity) {
    const MutexLock lock(mMutex);
    auto* asked = std::get_if<Identifying>(&mState);
    if (asked != nullptr) asked->answer.emplace(std::move(identity));
    mWork.notifyOne();
  });
}

void DurableLink::validateIdentity(const Result<DiskIdentity>& identity) {
  if (!identity && identity.error().kind == ErrorKind::kLinkLost) return endAttempt();
  if (!identity || (mIdentity.fileSystem && !identity->fileSystem)) {
    return refuse("the disk that is served there now cannot be read");
  }
  if (identity->rootInode != mIdentity.rootInode ||
      (mIdentity.fileSystem && identity->fileSystem != mIdentity.fileSystem)) {
    return refuse("another disk is served there now");
  }
  mIdentity = *identity;
  activate();
}

void DurableLink::activate() {
  Link& link = mConnection->link();
  mState = Serving{&link, mQueue.empty()};
  if (!mDeadline) mDeadline = Clock::now();
  mRefusal.clear();
  mSmallFiles = link.servesSmallFiles();
  mMetrics.reconnected();
  for (auto& task : mTasks) link.post(std::move(task));
  mTasks.clear();
  for (auto pending = mQueue.begin(); pending != mQueue.end();) {
    const auto each = pending++;
    if (each->request.command == wire::Command::kSmallFileRead && !mSmallFiles) {
      // A host that does not know the command would never answer.
      link.post([done = std::move(each->done)] {
        done(Error{ErrorKind::kFailed, "the host reads no batches of files any more"});
      });
      mQueue.erase(each);
    } else {
      send(link, each);
    }
  }
  report("connected to the host again");
}

void DurableLink::refuse(const std::string& reason) {
  endAttempt();
  if (std::exchange(mRefusal, reason) != reason) report(reason);
}

void DurableLink::endAttempt() {
  dropConnection(Pausing{});
  pause();
}

void DurableLink::pause() {
  mState = Pausing{Clock::now() + mPause};
  mPause = std::min(mPause * 2, kMaxPause);
}

void DurableLink::expire() {
  mDeadline.reset();
  for (Pending& pending : mQueue) {
    mTasks.push_back([done = std::move(pending.done), reason = mReason] {
      done(Error{ErrorKind::kLinkLost, reason});
    });
  }
  mQueue.clear();
}

void DurableLink::dropConnection(State next) {
  mState = std::move(next);
  mMutex.unlock();
  mConnection.reset();
  mMutex.lock();
}

void DurableLink::runTasks() {
  std::vector<std::function<void()>> tasks = std::exchange(mTasks, {});
  mMutex.unlock();
  for (auto& task : tasks) task();
  tasks.clear();
  mMutex.lock();
}

void DurableLink::report(const std::string& clause) {
  if (!mOptions.report) return;
  mMutex.unlock();
  mOptions.report(clause);
  mMutex.lock();
}

}  // namespace zor::client
