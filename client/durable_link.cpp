#include "client/durable_link.h"

#include <algorithm>
#include <future>
#include <iterator>
#include <utility>

#include "client/command_traits.h"
#include "client/disk.h"

namespace zor::client {

namespace {

OutgoingRequest duplicate(const OutgoingRequest& request) {
  return {request.command, Buffer(request.payload.bytes()), request.data};
}

std::uint64_t sizeOf(const OutgoingRequest& request) {
  return std::uint64_t{request.payload.size()} + (request.data ? request.data->size() : 0);
}

DurableLinkOptions bounded(DurableLinkOptions options) {
  using std::chrono::milliseconds;
  options.timeout =
      std::clamp(options.timeout, milliseconds(1), milliseconds(std::chrono::hours(24)));
  return options;
}

}  // namespace

DurableLink::DurableLink(DurableLinkOptions options) : mOptions(bounded(std::move(options))) {}

Result<std::unique_ptr<DurableLink>> DurableLink::open(DurableLinkOptions options) {
  std::unique_ptr<DurableLink> link(new DurableLink(std::move(options)));
  Status connected = link->connectFirst();
  if (!connected) return std::move(connected.error());
  link->mThread = std::thread([&self = *link] { self.run(); });
  return link;
}

DurableLink::~DurableLink() {
  if (!mThread.joinable()) return;
  close(Closing::kDestroyed);
  mThread.join();
}

void DurableLink::giveUp() { close(Closing::kGivenUp); }

void DurableLink::close(Closing closing) {
  const MutexLock lock(mMutex);
  mClosing = std::max(mClosing, closing);
  mWork.notifyOne();
}

DiskIdentity DurableLink::identity() const {
  const MutexLock lock(mMutex);
  return mIdentity;
}

Status DurableLink::connectFirst() {
  const Clock::time_point patience = Clock::now() + kBusyHostPatience;
  for (;;) {
    {
      const MutexLock lock(mMutex);
      mState = Greeting{};
    }
    Result<std::unique_ptr<Connection>> connection = Connection::start(connectionOptions());
    if (!connection) return std::move(connection.error());
    mConnection = std::move(*connection);
    Status announced = mConnection->finish(mOptions.timeout);
    if (announced) break;
    // The host may not have noticed yet that its last client has left.
    if (Clock::now() > patience) return announced;
    mConnection = nullptr;
    std::this_thread::sleep_for(kBusyHostPause);
  }
  const Result<DiskIdentity> identity = awaitIdentity();
  if (!identity) return identity.error();
  mAnnouncement = mConnection->announcement();
  mSmallFiles = mConnection->link().servesSmallFiles();
  const MutexLock lock(mMutex);
  mIdentity = *identity;
  mDeadline = Clock::now() + mOptions.timeout;
  if (std::holds_alternative<Failed>(mState)) {
    mState = Lost{true};
  } else {
    mState = Serving{&mConnection->link(), true};
  }
  if (!identity->fileSystem) {
    report("the host does not identify its disk; another one of this name would be used, too");
  }
  return Unit{};
}

Result<DiskIdentity> DurableLink::awaitIdentity() {
  auto promise = std::make_shared<std::promise<Result<DiskIdentity>>>();
  auto answer = promise->get_future();
  queryIdentity(Disk(mConnection->link()), [promise](Result<DiskIdentity> identity) {
    promise->set_value(std::move(identity));
  });
  if (answer.wait_for(mOptions.timeout) != std::future_status::ready) {
    return Error{ErrorKind::kLinkLost, "the host does not answer"};
  }
  Result<DiskIdentity> identity = answer.get();
  if (!identity && identity.error().kind == ErrorKind::kFailed) {
    return Error{ErrorKind::kFailed, "the disk cannot be read"};
  }
  return identity;
}

ConnectionOptions DurableLink::connectionOptions() {
  ConnectionOptions options = mOptions.connection;
  options.link.idleTimeout = mOptions.timeout;
  options.link.onAnnounced = [this] {
    const MutexLock lock(mMutex);
    if (auto* greeting = std::get_if<Greeting>(&mState)) greeting->announced = true;
    mWork.notifyOne();
  };
  options.link.onBroken = [this](const Error& error) { onBroken(error); };
  return options;
}

void DurableLink::submit(OutgoingRequest request, Completion done) {
  enqueue(std::move(request), std::move(done), std::nullopt);
}

void DurableLink::submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) {
  enqueue(std::move(request), std::move(done), std::move(fence));
}

void DurableLink::post(std::function<void()> task) {
  const MutexLock lock(mMutex);
  if (const auto* serving = std::get_if<Serving>(&mState)) {
    return serving->link->post(std::move(task));
  }
  mTasks.push_back(std::move(task));
  mWork.notifyOne();
}

void DurableLink::enqueue(OutgoingRequest request, Completion done,
                          std::optional<OutgoingRequest> fence) {
  const MutexLock lock(mMutex);
  if (!mDeadline) {
    mTasks.push_back([done = std::move(done), reason = mReason] {
      done(Error{ErrorKind::kLinkLost, reason});
    });
    mWork.notifyOne();
    return;
  }
  mQueue.push_back({std::move(request), std::move(fence), std::move(done)});
  if (const auto* serving = std::get_if<Serving>(&mState)) {
    send(*serving->link, std::prev(mQueue.end()));
  }
}

void DurableLink::send(Link& link, Queue::iterator pending) {
  const std::uint64_t fenceSize = pending->fence ? sizeOf(*pending->fence) : 0;
  mMetrics.sent(pending->request.command, sizeOf(pending->request) + fenceSize, pending->sent,
                mInFlight == 0);
  pending->sent = true;
  ++mInFlight;
  Completion done = [this, pending](Result<ReplyPayload> reply) {
    complete(pending, std::move(reply));
  };
  if (pending->fence) {
    link.submitFenced(duplicate(pending->request), std::move(done), duplicate(*pending->fence));
  } else {
    link.submit(duplicate(pending->request), std::move(done));
  }
}

void DurableLink::complete(Queue::iterator pending, Result<ReplyPayload> reply) {
  Queue finished;
  {
    const MutexLock lock(mMutex);
    --mInFlight;
    const wire::Command command = pending->request.command;
    if (reply || reply.error().kind != ErrorKind::kLinkLost) {
      if (auto* serving = std::get_if<Serving>(&mState)) serving->answered = true;
      mMetrics.received(command, reply ? reply->size() : 0);
    } else {
      // Noted here before onBroken, so that newer requests wait.
      noteLoss(reply.error());
      if (isRepeatable(command)) return;
    }
    finished.splice(finished.end(), mQueue, pending);
  }
  finished.front().done(std::move(reply));
}

void DurableLink::onBroken(const Error& error) {
  const MutexLock lock(mMutex);
  noteLoss(error);
  if (std::holds_alternative<Greeting>(mState) || std::holds_alternative<Identifying>(mState)) {
    mState = Failed{};
  }
  mWork.notifyOne();
}

void DurableLink::noteLoss(const Error& error) {
  const auto* serving = std::get_if<Serving>(&mState);
  if (serving == nullptr) return;
  // A connection that gave no answer gives no new time either: a request that
  // ends each host that it reaches must not be repeated forever.
  if (serving->link->wentSilent()) {
    mDeadline = Clock::now();
  } else if (serving->answered) {
    mDeadline = Clock::now() + mOptions.timeout;
  }
  mReason = error.message;
  mState = Lost{serving->answered};
  mWork.notifyOne();
}

}  // namespace zor::client
