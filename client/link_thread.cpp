// What the link's own thread does.
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "client/command_traits.h"
#include "client/link.h"
#include "protocol/records.h"

namespace zor::client {

namespace {

/// An announcement's packet is shorter.
constexpr std::uint32_t kMaxNotice = std::uint32_t{128} << 10;
constexpr std::size_t kMaxStep = std::size_t{64} << 10;

}  // namespace

void Link::run() {
  for (;;) {
    try {
      if (!waitForEvents()) break;
    } catch (const std::bad_alloc&) {
      breakLink(lost("there is not enough memory for what the host sends"));
    }
  }
  breakLink(lost("the connection was closed on this side"));
  while (runTasks()) {
  }
}

bool Link::waitForEvents() {
  std::array<pollfd, 2> events{pollfd{-1, 0, 0}, pollfd{mWakeup.get(), POLLIN, 0}};
  auto timeout = mOptions.idleTimeout;
  {
    const MutexLock lock(mMutex);
    if (mStop) return false;
    if (!mBroken) {
      events[0].fd = mSocket.get();
      events[0].events = static_cast<short>(mOutgoing.empty() ? POLLIN : POLLIN | POLLOUT);
      if (!mPending.empty()) {
        timeout =
            std::chrono::ceil<std::chrono::milliseconds>(mLastAnswer + timeout - Clock::now());
      }
    }
  }
  if (timeout.count() <= 0) {
    {
      const MutexLock lock(mMutex);
      mSilent = true;
    }
    breakLink(lost("no answer from the host for " + seconds(mOptions.idleTimeout)));
    return true;
  }
  const auto limit = std::min<std::int64_t>(timeout.count(), 1 << 30);
  if (::poll(events.data(), events.size(), static_cast<int>(limit)) <= 0) return true;
  if (events[1].revents != 0) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(mWakeup.get(), &count, sizeof count);
    runTasks();
  }
  if ((events[0].revents & POLLOUT) != 0) {
    const MutexLock lock(mMutex);
    flush();
  }
  if ((events[0].revents & ~POLLOUT) != 0) receive(events[0].fd);
  return true;
}

void Link::receive(int socket) {
  const std::span<const iovec> room = mReader.room();
  msghdr message{};
  message.msg_iov = const_cast<iovec*>(room.data());
  message.msg_iovlen = room.size();
  const ssize_t got = ::recvmsg(socket, &message, MSG_DONTWAIT);
  if (got < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) return;
  if (got < 0 && errno != ECONNRESET) {
    return breakLink(lost(std::string("the connection broke: ") + strerror(errno)));
  }
  if (got <= 0) {
    std::string reason = "the host closed the connection";
    {
      const MutexLock lock(mMutex);
      mTurnedAway = !mAnnouncement;
      if (mTurnedAway) reason += " before it announced a disk: " + mOptions.whyTurnedAway;
    }
    return breakLink(lost(reason));
  }
  Status status = mReader.consume(
      static_cast<std::size_t>(got),
      [this](const PacketHeader& header, Buffer payload) { dispatch(header, std::move(payload)); });
  if (!status) return breakLink(lost(status.error().message));
  limitPartial();
}

/// Bounds what a packet that is still arriving may take: memory by what was asked, and time by
/// how much of an answer comes.
void Link::limitPartial() {
  const PacketHeader* header = mReader.partial();
  if (header == nullptr) return;
  const MutexLock lock(mMutex);
  const auto request = requestOf(*header);
  const bool expected = request != mPending.end();
  const std::uint32_t longest = expected ? traitsOf(request->command).longestAnswer : kMaxNotice;
  if (header->length > longest) {
    mTooLong = expected;
    mReader.drop();
  }
  if (!expected) return;
  const std::size_t step = std::clamp<std::size_t>(header->length / 16, 1, kMaxStep);
  if (mCounted && mReader.arrived() - *mCounted < step) return;
  mCounted = mReader.arrived();
  mLastAnswer = Clock::now();
}

void Link::dispatch(const PacketHeader& header, Buffer payload) {
  mCounted.reset();
  if (header.cmd == wire::code(wire::Command::kSmallFileNotice) &&
      header.requestId == wire::kSmallFileNoticeRequestId) {
    const MutexLock lock(mMutex);
    mSmallFiles = true;
  } else if (header.cmd == wire::code(wire::Command::kMountRemote) &&
             header.requestId == wire::kAnnouncementRequestId) {
    answerAnnouncement(header, payload);
  } else {
    complete(header, std::move(payload));
  }
}

void Link::answerAnnouncement(const PacketHeader& header, const Buffer& payload) {
  wire::Cursor cursor(payload.bytes());
  wire::MountAnnouncement record{};
  cursor.get(record);
  const wire::Bytes name = cursor.take(record.nameLength);
  const wire::Bytes tail = cursor.take(2);
  if (!cursor.ok() || !cursor.rest().empty() || tail[0] != std::byte{0}) {
    return breakLink(lost("the host announced the disk with a malformed packet"));
  }
  MutexLock lock(mMutex);
  if (mAnnouncement || mBroken) return;
  mAnnouncement = Announcement{header.devId,
                               std::string(reinterpret_cast<const char*>(name.data()), name.size()),
                               tail[1] != std::byte{0}};
  const std::string_view drive = std::string_view(mOptions.driveName).substr(0, 0xffff);
  OutgoingRequest answer{wire::Command::kMountResponse, {}, {}};
  answer.payload = Buffer(wire::encoded(
      wire::MountResponseRecord{record.nameLength, static_cast<std::uint16_t>(drive.size())}));
  answer.payload.append(std::as_bytes(std::span(drive)));
  answer.payload.append(name);
  enqueue(std::move(answer));
  flush();
  mAnnounced.notifyAll();
  lock.unlock();
  if (mOptions.onAnnounced) mOptions.onAnnounced();
}

void Link::complete(const PacketHeader& header, Buffer payload) {
  Pending request;
  std::vector<Completion> passedOver;
  {
    const MutexLock lock(mMutex);
    const auto at = requestOf(header);
    if (at == mPending.end()) return;
    mLastAnswer = Clock::now();
    // Requests are served in order, so there will be no answer to these.
    for (auto silent = mPending.begin(); silent != at; ++silent) {
      if (silent->done) passedOver.push_back(std::move(silent->done));
    }
    request = std::move(*at);
    mPending.erase(mPending.begin(), std::next(at));
  }
  for (const Completion& done : passedOver) {
    done(Error{ErrorKind::kUnanswered, "the host passed over the request"});
  }
  const bool tooLong = std::exchange(mTooLong, false);
  if (!request.done) return;
  if (tooLong) {
    request.done(Error{
        ErrorKind::kBadReply,
        "the host's answer of " + std::to_string(header.length) + " bytes is too long to be kept"});
  } else if (header.cmd == wire::code(request.command)) {
    request.done(std::move(payload));
  } else {
    request.done(Error{ErrorKind::kBadReply, "the host answered another command"});
  }
}

void Link::breakLink(Error error) {
  std::deque<Pending> pending;
  {
    const MutexLock lock(mMutex);
    if (mBroken) return;
    mBroken = error;
    mSocket.reset();
    mOutgoing.clear();
    mSent = 0;
    pending.swap(mPending);
    mAnnounced.notifyAll();
  }
  for (const Pending& request : pending) {
    if (request.done) request.done(error);
  }
  if (mOptions.onBroken) mOptions.onBroken(error);
}

bool Link::runTasks() {
  std::vector<std::function<void()>> tasks;
  {
    const MutexLock lock(mMutex);
    tasks.swap(mTasks);
  }
  for (const auto& task : tasks) task();
  return !tasks.empty();
}

}  // namespace zor::client
