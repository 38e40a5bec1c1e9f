#include "host/io/receiver.h"

#include <spdlog/spdlog.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "protocol/commands.h"

namespace zor::host {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

void Receiver::run(ZorDriver& driver) {
  FrameReader frames(mStream.budget());  // what has begun to arrive at the end goes at the end
  mFrames = &frames;
  mDriver = &driver;
  while (deliver(Waiting::kBlocking) != Delivered::kOver) {
    if (!frames.insidePacket() && mPolicy.wantsHandOff(frames.header().length)) {
      handOff();
      // What the data-event thread has left.
      if (deliver(Waiting::kBlocking) == Delivered::kOver) return;
    }
    if (!receive()) return;
  }
}

// False when the stream is over.
bool Receiver::receive() {
  const ssize_t received = mStream.receive(mFrames->space(), Waiting::kBlocking);
  if (received > 0) {
    mFrames->commit(static_cast<std::size_t>(received));
    return true;
  }
  if (received == -ETIMEDOUT) {
    spdlog::warn("ended the connection: the client sends nothing, and others wait for its memory");
    mStream.end();
  } else if (received < 0) {
    spdlog::error("receiving failed: {}", std::strerror(static_cast<int>(-received)));
  } else if (mStream.ended()) {
    spdlog::info("the connection to the client has ended");
  } else {
    spdlog::info("the client left{}", mFrames->insidePacket() ? " in the middle of a packet" : "");
  }
  return false;
}

// Hands over every packet that is there whole.
Receiver::Delivered Receiver::deliver(Waiting waiting) {
  using Status = FrameReader::Status;
  Status status;
  for (std::unique_ptr<ZorPacket> packet;
       (status = mFrames->next(packet, waiting)) == Status::kPacket;) {
    mPackets.fetch_add(1, std::memory_order_relaxed);
    if (packet->GetCmd() >= wire::kFirstBusEvent) {
      mDriver->onBusEvent(std::move(packet));
    } else {
      mPolicy.wake();
      mDriver->onEvent(std::move(packet), 0);
    }
  }
  if (status == Status::kMore) return Delivered::kAll;
  if (waiting == Waiting::kNonBlocking) return Delivered::kSome;
  endBadStream(status);
  return Delivered::kOver;
}

void Receiver::endBadStream(FrameReader::Status status) {
  using Status = FrameReader::Status;
  const PacketHeader& header = mFrames->header();
  if (status == Status::kBadMagic) {
    spdlog::warn("ended the connection: a packet began with {:#04x}", header.magic);
  } else if (status == Status::kBadLength) {
    spdlog::warn("ended the connection: a packet declared a length of {} bytes", header.length);
  } else if (status == Status::kNoMemory) {
    spdlog::error("ended the connection: no memory for a packet of {} bytes", header.length);
  } else {
    spdlog::info("the connection to the client has ended");
  }
  mStream.end();
}

void Receiver::handOff() {
  MutexLock lock(mMutex);
  if (!mPolicy.handOff(Clock::now())) return;
  while (mPolicy.isHandedOff() && !mPolicy.isOverdue(Clock::now())) {
    mReturned.waitFor(mMutex, IoPolicy::kMaxBusyTime);
  }
  mPolicy.takeBack();
  if (mFailure) std::rethrow_exception(mFailure);
}

void Receiver::poll() noexcept {
  mPolicy.ask();
  if (mPolicy.isHandedOff()) {
    const MutexLock lock(mMutex);
    if (mPolicy.isHandedOff()) receiveHandedOff();
  }
  mStream.flush();  // not under the mutex: a client may read only after it could send
}

bool Receiver::await() noexcept {
  MutexLock lock(mMutex);
  if (mPolicy.isHandedOff()) {
    mPolicy.waitToRead();
    lock.unlock();
    const bool any = mStream.waitReadable(IoPolicy::kMaxIdleTime);
    lock.lock();
    if (any) {
      receiveHandedOff();
    } else {
      mPolicy.giveUp();
    }
  }
  if (mPolicy.isHandedOff()) return true;
  mPolicy.sleep();
  mReturned.notifyOne();
  return false;
}

// What it cannot do it leaves to the thread of `run`: ends and failures are there to be met
// again.
void Receiver::receiveHandedOff() noexcept {
  mPolicy.read(Clock::now());
  const ssize_t received = mStream.receive(mFrames->space(), Waiting::kNonBlocking);
  if (received == -EAGAIN) return;
  bool goesOn = received > 0;
  try {
    if (goesOn) {
      mFrames->commit(static_cast<std::size_t>(received));
      goesOn = deliver(Waiting::kNonBlocking) == Delivered::kAll && !mFrames->insidePacket() &&
               mFrames->header().length <= IoPolicy::kMaxSmallPacket;
    }
  } catch (...) {
    mFailure = std::current_exception();
    goesOn = false;
  }
  if (goesOn) return;
  mPolicy.giveUp();
  mReturned.notifyOne();
}

}  // namespace zor::host
