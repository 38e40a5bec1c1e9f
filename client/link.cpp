#include "client/link.h"

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "protocol/records.h"

namespace zor::client {

namespace {

/// sendmsg only reads what an iovec names.
iovec dataPart(const std::shared_ptr<const Buffer>& data) {
  if (!data) return {nullptr, 0};
  return {const_cast<std::byte*>(data->data()), data->size()};
}

}  // namespace

std::string Link::seconds(std::chrono::milliseconds time) {
  const auto ms = time.count();
  return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

Link::Link(UniqueFd socket, LinkOptions options)
    : mOptions(std::move(options)),
      mWakeup(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mSocket(std::move(socket)),
      mLastAnswer(Clock::now()) {
  if (!mWakeup) throw std::system_error(errno, std::generic_category(), "eventfd");
  mThread = std::thread([this] { run(); });
}

Link::~Link() {
  {
    const MutexLock lock(mMutex);
    mStop = true;
    wake();
  }
  mThread.join();
}

Result<Announcement> Link::waitForAnnouncement(std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  const MutexLock lock(mMutex);
  while (!mAnnouncement && !mBroken && mAnnounced.waitUntil(mMutex, end)) {
  }
  if (mAnnouncement) return *mAnnouncement;
  if (mBroken) return *mBroken;
  return lost("the host announced no disk for " + seconds(limit));
}

bool Link::servesSmallFiles() const {
  const MutexLock lock(mMutex);
  return mSmallFiles;
}

bool Link::wentSilent() const {
  const MutexLock lock(mMutex);
  return mSilent;
}

bool Link::turnedAway() const {
  const MutexLock lock(mMutex);
  return mTurnedAway;
}

void Link::submit(OutgoingRequest request, Completion done) {
  const MutexLock lock(mMutex);
  if (refuse(done)) return;
  enqueuePending(std::move(request), std::move(done));
  flush();
}

void Link::submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) {
  const MutexLock lock(mMutex);
  if (refuse(done)) return;
  enqueuePending(std::move(request), std::move(done));
  enqueuePending(std::move(fence), nullptr);
  flush();
}

void Link::post(std::function<void()> task) {
  const MutexLock lock(mMutex);
  mTasks.push_back(std::move(task));
  wake();
}

void Link::notify(OutgoingRequest request) {
  const MutexLock lock(mMutex);
  if (mBroken || !mAnnouncement) return;
  enqueue(std::move(request));
  flush();
}

std::uint32_t Link::enqueue(OutgoingRequest request) {
  do {
    ++mLastId;
  } while (mLastId == 0 || mLastId == wire::kAnnouncementRequestId ||
           mLastId == wire::kSmallFileNoticeRequestId);
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

void Link::enqueuePending(OutgoingRequest request, Completion done) {
  if (mPending.empty()) mLastAnswer = Clock::now();
  const wire::Command command = request.command;
  const std::uint32_t id = enqueue(std::move(request));
  mPending.push_back({id, command, std::move(done)});
}

/// The request that a packet answers, or the end.
std::deque<Link::Pending>::iterator Link::requestOf(const PacketHeader& header) {
  if (mAnnouncement && header.devId != mAnnouncement->devId) return mPending.end();
  return std::find_if(mPending.begin(), mPending.end(),
                      [&](const Pending& pending) { return pending.id == header.requestId; });
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
                                        dataPart(packet.data)};
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

}  // namespace zor::client
