#include "host/reception.h"

#include <spdlog/spdlog.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "protocol/commands.h"

namespace zor::host {
namespace {

// Larger packets arrive in pieces, and the next one can arrive while one is served.
constexpr std::uint32_t kMaxWhileLent = std::uint32_t{16} << 10;
// How long the data-event thread may be busy without the reading being taken back:
// between one and two of these.
constexpr auto kTick = std::chrono::milliseconds(4);
// A remote that sends nothing for so long is no longer in a hurry.
constexpr auto kMoment = std::chrono::milliseconds(20);

}  // namespace

void Reception::run(ZorDriver& driver) {
  FrameReader frames(mLink.budget());  // what has begun to arrive at the end goes at the end
  mFrames = &frames;
  mDriver = &driver;
  while (deliver(Patience::kWait) != Delivered::kOver) {
    if (worthLending()) {
      lend();
      if (mFailure) std::rethrow_exception(mFailure);
      // What the data-event thread has left.
      if (deliver(Patience::kWait) == Delivered::kOver) return;
    }
    if (!receive()) return;
  }
}

// False when the stream is over.
bool Reception::receive() {
  const ssize_t received = mLink.receive(mFrames->space(), Patience::kWait);
  if (received > 0) {
    mFrames->commit(static_cast<std::size_t>(received));
    return true;
  }
  if (received == -ETIMEDOUT) {
    spdlog::warn("ended the connection: the client sends nothing, and others wait for its memory");
    mLink.end();
  } else if (received < 0) {
    spdlog::error("receiving failed: {}", std::strerror(static_cast<int>(-received)));
  } else if (mLink.ended()) {
    spdlog::info("the connection to the remote has ended");
  } else {
    spdlog::info("the remote left{}", mFrames->insidePacket() ? " in the middle of a packet" : "");
  }
  return false;
}

// Hands over every packet that is there whole.
Reception::Delivered Reception::deliver(Patience patience) {
  using Status = FrameReader::Status;
  std::size_t count = 0;
  Status status;
  for (std::unique_ptr<ZorPacket> packet;
       (status = mFrames->next(packet, patience)) == Status::kPacket; ++count) {
    mPackets.fetch_add(1, std::memory_order_relaxed);
    if (packet->GetCmd() >= wire::kFirstBusEvent) {
      mDriver->onBusEvent(std::move(packet));
    } else {
      if (patience == Patience::kWait) mAsleep = false;  // nor will it sleep before it asks
      mDriver->onEvent(std::move(packet), 0);
    }
  }
  if (patience == Patience::kNone) {
    mLink.hold(count > 1);  // who sends many at a time is not kept waiting by a few
    return status == Status::kMore ? Delivered::kAll : Delivered::kSome;
  }
  if (status == Status::kMore) return Delivered::kAll;
  endBadStream(status);
  return Delivered::kOver;
}

void Reception::endBadStream(FrameReader::Status status) {
  using Status = FrameReader::Status;
  const PacketHeader& header = mFrames->header();
  if (status == Status::kBadMagic) {
    spdlog::warn("ended the connection: a packet began with {:#04x}", header.magic);
  } else if (status == Status::kBadLength) {
    spdlog::warn("ended the connection: a packet declared a length of {} bytes", header.length);
  } else if (status == Status::kNoMemory) {
    spdlog::error("ended the connection: no memory for a packet of {} bytes", header.length);
  } else {
    spdlog::info("the connection to the remote has ended");
  }
  mLink.end();
}

bool Reception::worthLending() noexcept {
  return !mFrames->insidePacket() && mFrames->header().length <= kMaxWhileLent &&
         mAsked.load(std::memory_order_relaxed);
}

void Reception::lend() {
  Lock lock(mMutex);
  mLent = !mAsleep && mAsked.exchange(false);
  for (std::uint64_t before = ~mTurns; mLent && (mAwaiting || before != mTurns);) {
    before = mTurns;
    mTurn.wait_for(lock, kTick, [this] { return !mLent; });
  }
  takeBack();
}

// REQUIRES: mMutex. Writes nothing: a remote may read only after it could send.
void Reception::takeBack() noexcept {
  mLent = false;
  mLink.hold(false);
  mTurn.notify_one();
}

void Reception::poll() noexcept {
  mAsked.store(true, std::memory_order_relaxed);
  if (!mLent.load(std::memory_order_relaxed)) return;
  {
    const Lock lock(mMutex);
    if (mLent) receiveLent();
  }
  mLink.flushUnlessHeld();
}

bool Reception::await() noexcept {
  Lock lock(mMutex);
  if (mLent) {
    // Not under the mutex, nor as one who waits: from that one nothing is taken back.
    lock.unlock();
    mLink.hold(false);
    mLink.flushUnlessHeld();
    lock.lock();
  }
  if (mLent) {
    mAwaiting = true;
    lock.unlock();
    const bool any = mLink.waitReadable(kMoment);
    lock.lock();
    mAwaiting = false;
    if (any) {
      receiveLent();
    } else {
      takeBack();
    }
  }
  mAsleep = !mLent;
  return mLent;
}

// REQUIRES: mMutex, mLent. What it cannot do it leaves to the thread of `run`:
// ends and failures are there to be met again.
void Reception::receiveLent() noexcept {
  ++mTurns;
  const ssize_t received = mLink.receive(mFrames->space(), Patience::kNone);
  if (received == -EAGAIN) return mLink.hold(false);
  if (received <= 0) return takeBack();
  mFrames->commit(static_cast<std::size_t>(received));
  try {
    if (deliver(Patience::kNone) == Delivered::kSome || mFrames->insidePacket() ||
        mFrames->header().length > kMaxWhileLent) {
      takeBack();
    }
  } catch (...) {
    mFailure = std::current_exception();
    takeBack();
  }
}

}  // namespace zor::host
