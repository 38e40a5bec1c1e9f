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
  {
    const std::lock_guard lock(mMutex);
    mStop = true;
    mWork.notify_one();
  }
  mThread.join();
}

void DurableLink::giveUp() {
  const std::lock_guard lock(mMutex);
  mGivenUp = true;
  mWork.notify_one();
}

Status DurableLink::connectFirst() {
  const Clock::time_point patience = Clock::now() + kBusyHostPatience;
  for (;;) {
    mBroken = false;
    Result<std::unique_ptr<Connection>> connection = Connection::start(connectionOptions());
    if (!connection) return std::move(connection.error());
    mConnection = std::move(*connection);
    Status announced = mConnection->finish(mOptions.timeout);
    if (announced) break;
    // The host may not have noticed yet that its last remote side has left.
    if (Clock::now() > patience) return announced;
    mConnection = nullptr;
    std::this_thread::sleep_for(kBusyHostPause);
  }
  auto promise = std::make_shared<std::promise<Result<DiskIdentity>>>();
  auto answer = promise->get_future();
  queryIdentity(Disk(mConnection->link()), [promise](Result<DiskIdentity> identity) {
    promise->set_value(std::move(identity));
  });
  if (answer.wait_for(mOptions.timeout) != std::future_status::ready) {
    return Error{ErrorKind::kLinkLost, "the host does not answer"};
  }
  const Result<DiskIdentity> identity = answer.get();
  if (!identity && (identity.error().kind == ErrorKind::kFailed ||
                    identity.error().kind == ErrorKind::kUnreadable)) {
    return Error{ErrorKind::kFailed, "the disk cannot be read"};
  }
  if (!identity) return identity.error();
  mAnnouncement = mConnection->announcement();
  mIdentity = *identity;
  mSmallFiles = mConnection->link().servesSmallFiles();
  const std::lock_guard lock(mMutex);
  mLostAt = Clock::now();
  if (!mBroken) mLink = &mConnection->link();
  return Unit{};
}

ConnectionOptions DurableLink::connectionOptions() {
  ConnectionOptions options = mOptions.connection;
  options.link.idleTimeout = mOptions.timeout;
  options.link.onAnnounced = [this] {
    const std::lock_guard lock(mMutex);
    mAnnounced = true;
    mWork.notify_one();
  };
  options.link.onBroken = [this](const Error& error) { onBroken(error); };
  return options;
}

void DurableLink::submit(OutgoingRequest request, Completion done) {
  keep(std::move(request), std::move(done), std::nullopt);
}

void DurableLink::submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) {
  keep(std::move(request), std::move(done), std::move(fence));
}

void DurableLink::post(std::function<void()> task) {
  const std::lock_guard lock(mMutex);
  if (mLink != nullptr) return mLink->post(std::move(task));
  mTasks.push_back(std::move(task));
  mWork.notify_one();
}

void DurableLink::keep(OutgoingRequest request, Completion done,
                       std::optional<OutgoingRequest> fence) {
  const std::lock_guard lock(mMutex);
  if (mExpired) {
    mTasks.push_back([done = std::move(done), reason = mReason] {
      done(Error{ErrorKind::kLinkLost, reason});
    });
    mWork.notify_one();
    return;
  }
  mQueue.push_back({std::move(request), std::move(fence), std::move(done)});
  if (mLink != nullptr) handOver(std::prev(mQueue.end()));
}

void DurableLink::handOver(Queue::iterator kept) {
  const std::uint64_t fenceSize = kept->fence ? sizeOf(*kept->fence) : 0;
  mMetrics.sent(kept->request.command, sizeOf(kept->request) + fenceSize, kept->sent,
                mInFlight == 0);
  kept->sent = true;
  ++mInFlight;
  Completion done = [this, kept](Result<ReplyPayload> reply) { complete(kept, std::move(reply)); };
  if (kept->fence) {
    mLink->submitFenced(duplicate(kept->request), std::move(done), duplicate(*kept->fence));
  } else {
    mLink->submit(duplicate(kept->request), std::move(done));
  }
}

void DurableLink::complete(Queue::iterator kept, Result<ReplyPayload> reply) {
  Queue finished;
  {
    const std::lock_guard lock(mMutex);
    --mInFlight;
    const wire::Command command = kept->request.command;
    if (reply || reply.error().kind != ErrorKind::kLinkLost) {
      mProgress = true;
      mMetrics.received(command, reply ? reply->size() : 0);
    } else {
      // Learnt here before onBroken, so that what comes now waits instead.
      noteLoss(reply.error());
      if (isRepeatable(command)) return;
    }
    finished.splice(finished.end(), mQueue, kept);
  }
  finished.front().done(std::move(reply));
}

void DurableLink::onBroken(const Error& error) {
  const std::lock_guard lock(mMutex);
  mBroken = true;
  noteLoss(error);
  mWork.notify_one();
}

void DurableLink::noteLoss(const Error& error) {
  if (mLink == nullptr) return;
  // A connection that gave no answer gives no new time either: a request that
  // ends each host that it reaches must not be repeated forever.
  if (mLink->wentSilent()) {
    mLostAt = Clock::now() - mOptions.timeout;
  } else if (mProgress) {
    mLostAt = Clock::now();
  }
  mReason = error.message;
  mLink = nullptr;
  mWork.notify_one();
}

}  // namespace zor::client
