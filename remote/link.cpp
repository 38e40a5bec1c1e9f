#include "link.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "protocol/records.h"

namespace zor::remote {

namespace {

Error lost(std::string message) { return {ErrorKind::kLinkLost, std::move(message)}; }

std::string seconds(std::chrono::milliseconds time) {
  const auto ms = time.count();
  return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

}  // namespace

Link::Link(FileDescriptor socket, LinkOptions options)
    : mOptions(std::move(options)),
      mWakeup(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mSocket(std::move(socket)),
      mLastArrival(Clock::now()) {
  if (!mWakeup) throw std::system_error(errno, std::generic_category(), "eventfd");
  mThread = std::thread([this] { run(); });
}

Link::~Link() {
  {
    const std::lock_guard lock(mMutex);
    mStop = true;
    wake();
  }
  mThread.join();
}

Result<Announcement> Link::waitForAnnouncement(std::chrono::milliseconds limit) {
  std::unique_lock lock(mMutex);
  mAnnounced.wait_for(lock, limit, [this] { return mAnnouncement || mBroken; });
  if (mAnnouncement) return *mAnnouncement;
  if (mBroken) return *mBroken;
  return lost("the host announced no disk for " + seconds(limit));
}

bool Link::servesSmallFiles() const {
  const std::lock_guard lock(mMutex);
  return mSmallFiles;
}

void Link::submit(Request request, Completion done) {
  const std::lock_guard lock(mMutex);
  if (refuse(done)) return;
  enqueuePending(std::move(request), std::move(done), 0);
  flush();
}

void Link::submitFenced(Request request, Completion done, Request fence) {
  const std::lock_guard lock(mMutex);
  if (refuse(done)) return;
  const std::uint32_t id = enqueuePending(std::move(request), std::move(done), 0);
  enqueuePending(std::move(fence), nullptr, id);
  flush();
}

void Link::post(std::function<void()> task) {
  const std::lock_guard lock(mMutex);
  mTasks.push_back(std::move(task));
  wake();
}

void Link::notify(Request request) {
  const std::lock_guard lock(mMutex);
  if (mBroken || !mAnnouncement) return;
  enqueue(std::move(request));
  flush();
}

std::uint32_t Link::enqueue(Request request) {
  do {
    ++mLastId;
  } while (mLastId == 0 || mLastId == wire::kAnnouncementRequestId ||
           mLastId == wire::kSmallFileNoticeRequestId || mPending.count(mLastId) != 0);
  Outgoing packet;
  packet.payload = std::move(request.payload);
  packet.data = std::move(request.data);
  const PacketHeader header{kPacketMagic,
                            mAnnouncement->devId,
                            wire::code(request.command),
                            mLastId,
                            static_cast<std::uint32_t>(packet.size()),
                            0,
                            {}};
  packet.header = wire::encoded(header);
  mOutgoing.push_back(std::move(packet));
  return mLastId;
}

std::uint32_t Link::enqueuePending(Request request, Completion done, std::uint32_t fenced) {
  if (mPending.empty()) mLastArrival = Clock::now();
  const wire::Command command = request.command;
  const std::uint32_t id = enqueue(std::move(request));
  mPending.emplace(id, Pending{command, std::move(done), fenced});
  return id;
}

bool Link::refuse(Completion& done) {
  if (!mBroken && mAnnouncement) return false;
  Error error = mBroken ? *mBroken : lost("no disk has been announced yet");
  mTasks.push_back([done = std::move(done), error = std::move(error)] { done(error); });
  wake();
  return true;
}

void Link::flush() {
  while (!mOutgoing.empty() && !mSendFailed) {
    std::array<iovec, 30> parts;
    std::size_t used = 0;
    std::size_t skip = mSent;
    for (Outgoing& packet : mOutgoing) {
      if (used + 3 > parts.size()) break;
      const std::array<iovec, 3> pieces{iovec{packet.header.data(), packet.header.size()},
                                        iovec{packet.payload.data(), packet.payload.size()},
                                        iovec{packet.data.data(), packet.data.size()}};
      for (const iovec& piece : pieces) {
        const std::size_t skipped = std::min(skip, piece.iov_len);
        skip -= skipped;
        if (skipped == piece.iov_len) continue;
        parts[used++] = {static_cast<std::byte*>(piece.iov_base) + skipped,
                         piece.iov_len - skipped};
      }
    }
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = used;
    const ssize_t sent = ::sendmsg(mSocket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) break;
      // Answers may still lie in the socket: they are read, and then its end.
      mSendFailed = true;
      mOutgoing.clear();
      mSent = 0;
      ::shutdown(mSocket.get(), SHUT_RDWR);
      return;
    }
    mSent += static_cast<std::size_t>(sent);
    while (!mOutgoing.empty() && mSent >= mOutgoing.front().size()) {
      mSent -= mOutgoing.front().size();
      mOutgoing.pop_front();
    }
  }
  if (!mOutgoing.empty() && !mWriting) wake();
  mWriting = !mOutgoing.empty();
}

void Link::wake() {
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the thread is awake anyway.
  [[maybe_unused]] const ssize_t written = ::write(mWakeup.get(), &one, sizeof one);
}

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
    const std::lock_guard lock(mMutex);
    if (mStop) return false;
    if (!mBroken) {
      events[0].fd = mSocket.get();
      events[0].events = static_cast<short>(mOutgoing.empty() ? POLLIN : POLLIN | POLLOUT);
      if (!mPending.empty()) {
        timeout =
            std::chrono::ceil<std::chrono::milliseconds>(mLastArrival + timeout - Clock::now());
      }
    }
  }
  if (timeout.count() <= 0) {
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
    const std::lock_guard lock(mMutex);
    flush();
  }
  if ((events[0].revents & ~POLLOUT) != 0) receive();
  return true;
}

void Link::receive() {
  const std::span<const iovec> room = mReader.room();
  msghdr message{};
  message.msg_iov = const_cast<iovec*>(room.data());
  message.msg_iovlen = room.size();
  const ssize_t got = ::recvmsg(mSocket.get(), &message, MSG_DONTWAIT);
  if (got < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) return;
  if (got < 0) return breakLink(lost(std::string("the connection broke: ") + strerror(errno)));
  if (got == 0) {
    bool announced = false;
    {
      const std::lock_guard lock(mMutex);
      announced = mAnnouncement.has_value();
    }
    return breakLink(lost(announced ? "the host closed the connection"
                                    : "the host closed the connection before it announced a disk; "
                                      "it serves one remote side at a time"));
  }
  {
    const std::lock_guard lock(mMutex);
    mLastArrival = Clock::now();
  }
  Status status = mReader.consume(
      static_cast<std::size_t>(got),
      [this](const PacketHeader& header, Buffer payload) { dispatch(header, std::move(payload)); });
  if (!status) breakLink(lost(status.error().message));
}

void Link::dispatch(const PacketHeader& header, Buffer payload) {
  if (header.cmd == wire::code(wire::Command::kSmallFileNotice) &&
      header.requestId == wire::kSmallFileNoticeRequestId) {
    const std::lock_guard lock(mMutex);
    mSmallFiles = true;
  } else if (header.cmd == wire::code(wire::Command::kMountRemote) &&
             header.requestId == wire::kAnnouncementRequestId) {
    greet(header, payload);
  } else {
    complete(header, std::move(payload));
  }
}

void Link::greet(const PacketHeader& header, const Buffer& payload) {
  wire::Cursor cursor(payload.bytes());
  wire::MountAnnouncement record{};
  cursor.get(record);
  const wire::Bytes name = cursor.take(record.nameLength);
  const wire::Bytes tail = cursor.take(2);
  if (!cursor.ok() || !cursor.rest().empty() || tail[0] != std::byte{0}) {
    return breakLink(lost("the host announced the disk with a malformed packet"));
  }
  const std::lock_guard lock(mMutex);
  if (mAnnouncement || mBroken) return;
  mAnnouncement = Announcement{header.devId,
                               std::string(reinterpret_cast<const char*>(name.data()), name.size()),
                               tail[1] != std::byte{0}};
  const std::string_view drive = std::string_view(mOptions.driveName).substr(0, 0xffff);
  Request answer{wire::Command::kMountResponse, {}, {}};
  answer.payload = Buffer(wire::encoded(
      wire::MountResponseRecord{record.nameLength, static_cast<std::uint16_t>(drive.size())}));
  answer.payload.append(std::as_bytes(std::span(drive)));
  answer.payload.append(name);
  enqueue(std::move(answer));
  flush();
  mAnnounced.notify_all();
}

void Link::complete(const PacketHeader& header, Buffer payload) {
  Pending request;
  Completion unanswered;
  {
    const std::lock_guard lock(mMutex);
    const auto at = mPending.find(header.requestId);
    if (at == mPending.end() || header.devId != mAnnouncement->devId) return;
    request = std::move(at->second);
    mPending.erase(at);
    if (const auto silent = mPending.find(request.fenced); silent != mPending.end()) {
      unanswered = std::move(silent->second.done);
      mPending.erase(silent);
    }
  }
  if (unanswered) {
    unanswered(Error{ErrorKind::kUnanswered, "the host passed over the request"});
  }
  if (!request.done) return;
  if (header.cmd == wire::code(request.command)) {
    request.done(std::move(payload));
  } else {
    request.done(Error{ErrorKind::kBadReply, "the host answered another command"});
  }
}

void Link::breakLink(Error error) {
  std::unordered_map<std::uint32_t, Pending> pending;
  {
    const std::lock_guard lock(mMutex);
    if (mBroken) return;
    mBroken = error;
    mSocket.reset();
    mOutgoing.clear();
    mSent = 0;
    pending.swap(mPending);
    mAnnounced.notify_all();
  }
  for (const auto& [id, request] : pending) {
    if (request.done) request.done(error);
  }
  if (mOptions.onBroken) mOptions.onBroken(error);
}

bool Link::runTasks() {
  std::vector<std::function<void()>> tasks;
  {
    const std::lock_guard lock(mMutex);
    tasks.swap(mTasks);
  }
  for (const auto& task : tasks) task();
  return !tasks.empty();
}

}  // namespace zor::remote
