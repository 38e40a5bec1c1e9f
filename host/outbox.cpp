#include "host/outbox.h"

#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "zor_wait_listener.h"

namespace zor::host {
namespace {

constexpr std::size_t kSmallPacket = std::size_t{16} << 10;
// Writing less is over sooner than another thread has woken up.
constexpr std::size_t kLargePacket = std::size_t{128} << 10;
constexpr std::size_t kMaxGathered = std::size_t{64} << 10;
constexpr std::size_t kMaxParts = 64;
constexpr std::size_t kMaxTogether = 12;
// How long a reply may wait because the next request takes long: between one
// and two of these.
constexpr auto kCoalescingTick = std::chrono::milliseconds(1);

}  // namespace

Outbox::Outbox(int socket, const ReceiveBudget& budget, std::function<void()> failed)
    : mSocket(socket), mBudget(budget), mFailed(std::move(failed)) {
  mThread = std::thread([this] { run(); });
}

Outbox::~Outbox() {
  end();
  mThread.join();
  // A packet that came from the budget may still call `flush` when it goes.
  mAnyGathered = false;
  mWaiting.clear();
}

bool Outbox::send(std::unique_ptr<ZorPacket> packet, std::size_t size) {
  const std::size_t charge = packet->mBuffer->capacity + ReceiveBudget::kPacketOverhead;
  Item item{std::move(packet), size};
  Lock lock(mMutex);
  const auto room = [&] { return mEnded || !mWriting || mWaitingBytes + charge <= kMaxWaiting; };
  if (!room()) {
    lock.unlock();
    notifyAboutToWait();
    lock.lock();
    mRoom.wait(lock, room);
  }
  if (mEnded) return false;
  mWaiting.push_back(std::move(item));
  mWaitingBytes += charge;
  if (mWriting) return true;  // whoever writes takes it along
  const std::size_t packets = mBudget.packets();
  const bool more = packets > 1;
  if (mWaitingBytes <= kMaxWaiting && (more || mHeld)) {
    if (more && size >= kLargePacket) {
      mHandedOver = true;
      mWake.notify_one();
      return true;
    }
    // Who sends much in each request makes the next one while this one is served.
    const bool smallOnes = size <= kSmallPacket && mBudget.bytes() <= packets * kSmallPacket;
    if (smallOnes && mWaitingBytes < kMaxGathered && mWaiting.size() < kMaxTogether) {
      mAnyGathered.store(true, std::memory_order_relaxed);
      if (!std::exchange(mGathering, true)) mWake.notify_one();
      return true;
    }
  }
  writeAll(lock);
  return !mEnded;
}

void Outbox::flush() {
  if (!mAnyGathered.load(std::memory_order_relaxed)) return;
  Lock lock(mMutex);
  if (!mWriting) writeAll(lock);
}

void Outbox::drain() {
  Lock lock(mMutex);
  if (!mWriting) writeAll(lock);
  mRoom.wait(lock, [this] { return mEnded || !mWriting; });
}

void Outbox::end() noexcept {
  std::vector<Item> dropped;  // not under the lock: what goes may call `flush`
  const std::lock_guard lock(mMutex);
  mEnded = true;
  dropped.swap(mWaiting);
  mWaitingBytes = 0;
  mWake.notify_all();
  mRoom.notify_all();
}

// REQUIRES: nobody writes.
void Outbox::writeAll(Lock& lock) {
  mWriting = true;
  bool well = true;
  while (well && !mEnded && !mWaiting.empty()) {
    mInHand.swap(mWaiting);
    mWaitingBytes = 0;
    mHandedOver = false;
    mAnyGathered.store(false, std::memory_order_relaxed);
    ++mWrites;
    lock.unlock();
    mRoom.notify_all();
    well = writeItems();
    mInHand.clear();
    lock.lock();
  }
  mWriting = false;
  if (!well) mEnded = true;
  mRoom.notify_all();
  if (well) return;
  lock.unlock();
  mFailed();
  lock.lock();
}

bool Outbox::writeItems() noexcept {
  std::array<iovec, kMaxParts> parts;
  std::size_t count = 0;
  for (std::size_t i = 0; i < mInHand.size(); ++i) {
    parts[count++] = {mInHand[i].packet->mBuffer->data, mInHand[i].size};
    if (count < parts.size() && i + 1 < mInHand.size()) continue;
    if (!writeParts(parts.data(), std::exchange(count, 0))) return false;
  }
  return true;
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

void Outbox::run() {
  Lock lock(mMutex);
  while (true) {
    mWake.wait(lock, [this] { return mEnded || mHandedOver || mGathering; });
    if (mEnded) return;
    if (mHandedOver) {
      mHandedOver = false;
      if (!mWriting) writeAll(lock);
    } else {
      waitForTheGathered(lock);
    }
  }
}

// Looks from time to time, which is cheaper than an alarm for every packet.
void Outbox::waitForTheGathered(Lock& lock) {
  const std::uint64_t before = mWrites;
  if (mWake.wait_for(lock, kCoalescingTick, [this] { return mEnded || mHandedOver; })) return;
  if (mWrites != before) return;
  if (mWaiting.empty()) {
    mGathering = false;
  } else if (!mWriting) {
    writeAll(lock);
  }
}

}  // namespace zor::host
