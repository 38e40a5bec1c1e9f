#include "host/remote_link.h"

#include <poll.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "protocol/commands.h"
#include "support/send_buffer.h"

namespace zor::host {
namespace {

// How long a remote may do nothing while others wait for the memory that it holds.
constexpr timeval kStandstill{5, 0};

// An echoed request that came in network byte order is again what it was on
// the wire, its header fields included.
std::uint32_t lengthOf(const ZorPacket& packet) noexcept {
  const std::uint32_t length = packet.GetLength();
  return packet.mHeader->netOrder != 0 ? __builtin_bswap32(length) : length;
}

bool isAnnouncement(const ZorPacket& packet) noexcept {
  return packet.GetCmd() == wire::code(wire::Command::kMountRemote) &&
         packet.GetRequestId() == wire::kAnnouncementRequestId;
}

}  // namespace

RemoteLink::RemoteLink(UniqueFd socket, SharedBudget& shared)
    : mSocket(std::move(socket)),
      mBudget(shared, [this] { mOutbox.flushUnlessHeld(); }),
      mOutbox(mSocket.get(), mBudget, [this] { end(); }) {
  enlargeSendBuffer(mSocket.get());
  for (const int direction : {SO_RCVTIMEO, SO_SNDTIMEO}) {
    ::setsockopt(mSocket.get(), SOL_SOCKET, direction, &kStandstill, sizeof kStandstill);
  }
}

int RemoteLink::send(std::unique_ptr<ZorPacket> packet) noexcept try {
  if (!packet->mBuffer || packet->mBuffer->data == nullptr) return -1;
  const std::uint32_t length = lengthOf(*packet);
  if (length < kPacketHeaderSize || length > packet->mBuffer->capacity) {
    spdlog::error("the driver made a packet of length {} that holds {} bytes; it is not sent",
                  length, packet->mBuffer->capacity);
    return -1;
  }
  if (mDiverts.load(std::memory_order_relaxed)) {
    const std::lock_guard lock(mStateMutex);
    mDiverts = false;
    mDiverted = std::move(packet);
    mStateCond.notify_all();
    return 0;
  }
  const bool announcement = isAnnouncement(*packet);
  mBudget.chargeReply(*packet->mBuffer);
  if (!mOutbox.send(std::move(packet), length)) return -1;
  if (announcement) {
    const std::lock_guard lock(mStateMutex);
    mAnnounced = true;
    mStateCond.notify_all();
  }
  return 0;
} catch (...) {
  return -1;
}

ssize_t RemoteLink::receive(std::span<iovec> space, Patience patience) noexcept {
  const int flags = MSG_CMSG_CLOEXEC | (patience == Patience::kNone ? MSG_DONTWAIT : 0);
  msghdr message{};
  message.msg_iov = space.data();
  message.msg_iovlen = space.size();
  while (!ended()) {
    const ssize_t received = ::recvmsg(mSocket.get(), &message, flags);
    if (received >= 0) {
      mReceived.fetch_add(static_cast<std::uint64_t>(received), std::memory_order_relaxed);
      return received;
    }
    if (errno == ECONNRESET) return 0;  // it left without reading everything
    if (errno == EAGAIN && patience == Patience::kWait) {
      if (mBudget.keepsOthersWaiting()) return -ETIMEDOUT;
    } else if (errno != EINTR) {
      return -errno;
    }
  }
  return 0;
}

bool RemoteLink::waitReadable(std::chrono::milliseconds limit) const noexcept {
  pollfd state{mSocket.get(), POLLIN, 0};
  return ::poll(&state, 1, static_cast<int>(limit.count())) != 0;
}

void RemoteLink::end() noexcept {
  if (mEnded.exchange(true)) return;
  ::shutdown(mSocket.get(), SHUT_RDWR);
  mBudget.stop();
  mOutbox.end();
  const std::lock_guard lock(mStateMutex);
  mStateCond.notify_all();
}

bool RemoteLink::remoteGone() const noexcept {
  pollfd state{mSocket.get(), 0, 0};
  return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

void RemoteLink::divertNext() { mDiverts = true; }

std::unique_ptr<ZorPacket> RemoteLink::waitDiverted(std::chrono::milliseconds limit) {
  std::unique_lock lock(mStateMutex);
  mStateCond.wait_for(lock, limit, [this] { return mDiverted || ended(); });
  return std::move(mDiverted);
}

bool RemoteLink::waitAnnounced(std::chrono::milliseconds limit) {
  std::unique_lock lock(mStateMutex);
  mStateCond.wait_for(lock, limit, [this] { return mAnnounced || ended(); });
  return mAnnounced && !ended();
}

}  // namespace zor::host
