#include "host/io/outbox.h"

#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "host/io/io_policy.h"
#include "zor_wait_listener.h"

namespace zor::host {

// Another thread can be writing for as long as the client does not read.
class SCOPED_CAPABILITY Outbox::WriterTurn {
 public:
  explicit WriterTurn(Mutex& mutex) ACQUIRE(mutex) : mMutex(mutex) {
    if (mutex.tryLock()) return;
    notifyAboutToWait();
    mutex.lock();
  }
  ~WriterTurn() RELEASE() { mMutex.unlock(); }
  WriterTurn(const WriterTurn&) = delete;
  WriterTurn& operator=(const WriterTurn&) = delete;

 private:
  Mutex& mMutex;
};

Outbox::Outbox(int socket, const ReceiveBudget& budget, std::function<void()> failed)
    : mSocket(socket), mBudget(budget), mFailed(std::move(failed)) {
  mReplies.reserve(IoPolicy::kMaxCoalescedReplies);
  mThread = std::thread([this] { run(); });
}

Outbox::~Outbox() {
  wake();
  mThread.join();
}

bool Outbox::send(std::unique_ptr<ZorPacket> packet, std::size_t size) {
  const std::size_t bytes = packet->mBuffer->capacity + ReceiveBudget::kPacketOverhead;
  {
    const WriterTurn turn(mMutex);
    if (mBudget.stopped()) return false;
    mReplies.push_back({std::move(packet), size});
    mBytes += bytes;
    const IoPolicy::Requests inFlight{mBudget.packets(), mBudget.bytes()};
    const IoPolicy::Replies waiting{mReplies.size(), mBytes};
    const bool coalesces = !mHandedOver && IoPolicy::coalesces(size, inFlight, waiting);
    if (!coalesces && (mHandedOver || !IoPolicy::handsOver(size, inFlight, waiting))) {
      if (write()) return true;
    } else {
      mAnyWaiting.store(true, std::memory_order_relaxed);
      bool& known = coalesces ? mTicking : mHandedOver;
      if (!std::exchange(known, true)) mWork.notifyOne();
      return true;
    }
  }
  mFailed();
  return false;
}

void Outbox::flush() {
  if (!mAnyWaiting.load(std::memory_order_relaxed)) return;
  {
    const WriterTurn turn(mMutex);
    if (write()) return;
  }
  mFailed();
}

void Outbox::wake() noexcept {
  const MutexLock lock(mMutex);
  mWork.notifyOne();
}

bool Outbox::write() {
  std::array<iovec, IoPolicy::kMaxCoalescedReplies> parts;
  std::size_t count = 0;
  for (const Reply& reply : mReplies) parts[count++] = {reply.packet->mBuffer->data, reply.size};
  const bool written = !mBudget.stopped() && writeParts(parts.data(), count);
  mReplies.clear();
  mBytes = 0;
  mHandedOver = false;
  mAnyWaiting.store(false, std::memory_order_relaxed);
  ++mWrites;
  return written;
}

// Writes all of `parts`, which it changes.
bool Outbox::writeParts(iovec* parts, std::size_t count) noexcept {
  int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
  while (count > 0) {
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    const ssize_t sent = ::sendmsg(mSocket, &message, flags);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno == EAGAIN && (flags & MSG_DONTWAIT) != 0) {
      notifyAboutToWait();
      flags = MSG_NOSIGNAL;
      continue;
    }
    if (sent < 0 && errno == EAGAIN) {
      if (!mBudget.keepsOthersWaiting()) continue;
      spdlog::warn(
          "ended the connection: the client does not read, and others wait for its memory");
      return false;
    }
    if (sent < 0) return false;
    auto left = static_cast<std::size_t>(sent);
    mWrittenBytes.fetch_add(left, std::memory_order_relaxed);
    while (count > 0 && left >= parts->iov_len) {
      left -= parts->iov_len;
      ++parts;
      --count;
    }
    if (count > 0) {
      parts->iov_base = static_cast<std::uint8_t*>(parts->iov_base) + left;
      parts->iov_len -= left;
    }
  }
  return true;
}

// Looks from time to time, which is cheaper than an alarm for every reply.
void Outbox::run() {
  MutexLock lock(mMutex);
  while (!mBudget.stopped()) {
    if (!mHandedOver && !mTicking) {
      mWork.wait(mMutex);
      continue;
    }
    if (!mHandedOver) {
      const std::uint64_t before = mWrites;
      mWork.waitFor(mMutex, IoPolicy::kCoalescingTime);
      if (!mHandedOver && mWrites != before) continue;
      mTicking = !mReplies.empty();
    }
    if (mReplies.empty() || write()) continue;
    lock.unlock();
    mFailed();
    return;
  }
}

}  // namespace zor::host
