#include "host/io/client_stream.h"

#include <poll.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "protocol/commands.h"
#include "support/send_buffer.h"

namespace zor::host {
namespace {

// How long a client may do nothing while others wait for the memory that it holds.
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

ClientStream::ClientStream(UniqueFd socket, SharedBudget& shared)
    : mSocket(std::move(socket)),
      mBudget(shared),
      mOutbox(mSocket.get(), mBudget, [this] { end(); }) {
  enlargeSendBuffer(mSocket.get());
  for (const int direction : {SO_RCVTIMEO, SO_SNDTIMEO}) {
    ::setsockopt(mSocket.get(), SOL_SOCKET, direction, &kStandstill, sizeof kStandstill);
  }
}

int ClientStream::send(std::unique_ptr<ZorPacket> packet) noexcept try {
  if (!packet->mBuffer || packet->mBuffer->data == nullptr) return -1;
  const std::uint32_t length = lengthOf(*packet);
  if (length < kPacketHeaderSize || length > packet->mBuffer->capacity) {
    spdlog::error("the driver made a packet of length {} that holds {} bytes; it is not sent",
                  length, packet->mBuffer->capacity);
    return -1;
  }
  if (mDiverts.load(std::memory_order_relaxed)) {
    const MutexLock lock(mMutex);
    mDiverts = false;
    mDiverted = std::move(packet);
    mDiversion.notifyOne();
    return 0;
  }
  const bool announcement = isAnnouncement(*packet);
  mBudget.chargeReply(*packet->mBuffer);
  if (!mOutbox.send(std::move(packet), length)) return -1;
  if (announcement) {
    const MutexLock lock(mMutex);
    mAnnounced = true;
    mAnnouncement.notifyOne();
  }
  return 0;
} catch (...) {
  return -1;
}

ssize_t ClientStream::receive(std::span<iovec> space, Waiting waiting) noexcept {
  const int flags = MSG_CMSG_CLOEXEC | (waiting == Waiting::kNonBlocking ? MSG_DONTWAIT : 0);
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
    if (errno == EAGAIN && waiting == Waiting::kBlocking) {
      if (mBudget.keepsOthersWaiting()) return -ETIMEDOUT;
    } else if (errno != EINTR) {
      return -errno;
    }
  }
  return 0;
}

bool ClientStream::waitReadable(std::chrono::milliseconds limit) const noexcept {
  pollfd state{mSocket.get(), POLLIN, 0};
  return ::poll(&state, 1, static_cast<int>(limit.count())) != 0;
}

void ClientStream::end() noexcept {
  if (!mBudget.stop()) return;
  ::shutdown(mSocket.get(), SHUT_RDWR);
  mOutbox.wake();
  const MutexLock lock(mMutex);
  mAnnouncement.notifyOne();
  mDiversion.notifyOne();
}

bool ClientStream::clientGone() const noexcept {
  pollfd state{mSocket.get(), 0, 0};
  return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

void ClientStream::divertNext() { mDiverts = true; }

std::unique_ptr<ZorPacket> ClientStream::waitDiverted(std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  const MutexLock lock(mMutex);
  while (!mDiverted && !ended() && mDiversion.waitUntil(mMutex, end)) {
  }
  return std::move(mDiverted);
}

bool ClientStream::waitAnnounced(std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  const MutexLock lock(mMutex);
  while (!mAnnounced && !ended() && mAnnouncement.waitUntil(mMutex, end)) {
  }
  return mAnnounced && !ended();
}

}  // namespace zor::host
