#include "host/io/frame_reader.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "host/io/io_policy.h"
#include "host/io/reply_bound.h"
#include "protocol/commands.h"

namespace zor::host {
namespace {

constexpr std::size_t kBufferSize = std::size_t{256} << 10;
constexpr std::size_t kBehindLarge = std::size_t{2} << 10;
static_assert(kExaminedRequest < kBufferSize);

}  // namespace

FrameReader::FrameReader(ReceiveBudget& budget)
    : mBudget(budget), mBuffer(new std::uint8_t[kBufferSize]) {}

std::span<iovec> FrameReader::space() noexcept {
  if (mPending) {
    mSpace[0] = {mPending->mBuffer->data + mFilled, mHeader.length - mFilled};
    mSpace[1] = {mBuffer.get(), window()};
    return mSpace;
  }
  // At most a part of a header is left.
  std::memmove(mBuffer.get(), mBuffer.get() + mBegin, mEnd - mBegin);
  mEnd -= std::exchange(mBegin, 0);
  mSpace[0] = {mBuffer.get() + mEnd, window() - mEnd};
  return std::span(mSpace).first(1);
}

// What goes through the buffer is copied, so behind a large packet, which is
// likely to be followed by another one, little is taken in.
std::size_t FrameReader::window() const noexcept {
  return mHeader.length > IoPolicy::kMaxSmallPacket && !mExamining ? kBehindLarge : kBufferSize;
}

void FrameReader::commit(std::size_t count) noexcept {
  if (mPending) {
    const std::size_t wanted = std::min(count, mHeader.length - mFilled);
    mFilled += wanted;
    count -= wanted;
  }
  mEnd += count;
}

FrameReader::Status FrameReader::next(std::unique_ptr<ZorPacket>& packet, Waiting waiting) {
  if (!mPending) {
    const Status status = begin(waiting);
    if (status != Status::kPacket) return status;
  }
  if (mFilled < mHeader.length) return Status::kMore;
  packet = std::move(mPending);
  return Status::kPacket;
}

// Makes the packet whose header lies at mBegin and moves over to it what is
// there of its payload.
FrameReader::Status FrameReader::begin(Waiting waiting) {
  const std::size_t available = mEnd - mBegin;
  if (available == 0) return Status::kMore;
  const std::uint8_t* bytes = mBuffer.get() + mBegin;
  mHeader.magic = *bytes;
  if (mHeader.magic != kPacketMagic) return Status::kBadMagic;
  if (available < kPacketHeaderSize) return Status::kMore;
  std::memcpy(&mHeader, bytes, sizeof mHeader);
  mHeader.toHostOrder();
  if (mHeader.length < kPacketHeaderSize || mHeader.length > wire::kMaxPacketLength) {
    return Status::kBadLength;
  }

  const auto reply = replyBound(mHeader, {bytes, available});
  mExamining = !reply;
  if (!reply) return Status::kMore;
  const ReceiveBudget::Charge charge{
      mHeader.length + static_cast<std::uint32_t>(ReceiveBudget::kPacketOverhead),
      static_cast<std::uint32_t>(*reply)};
  if (waiting == Waiting::kNonBlocking) {
    if (!mBudget.tryAcquire(charge)) return Status::kNoRoom;
  } else if (!mBudget.acquire(charge)) {
    return Status::kStopped;
  }
  mPending.reset(new (std::nothrow) ZorPacket(mHeader.length));
  if (!mPending || !mPending->mBuffer) {
    mPending.reset();
    mBudget.ReleasePacket(charge.token());
    return Status::kNoMemory;
  }
  mPending->mBuffer->budget = &mBudget;
  mPending->mBuffer->charge = charge.token();
  *mPending->mHeader = mHeader;
  mFilled = std::min<std::size_t>(available, mHeader.length);
  std::memcpy(mPending->mBuffer->data + kPacketHeaderSize, bytes + kPacketHeaderSize,
              mFilled - kPacketHeaderSize);
  mBegin += mFilled;
  if (mBegin == mEnd) mBegin = mEnd = 0;
  return Status::kPacket;
}

}  // namespace zor::host
