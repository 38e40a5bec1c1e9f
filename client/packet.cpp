#include "client/packet.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zor::client {

namespace {

/// Enough for a read of one MiB with all that comes along.
constexpr std::size_t kFirstRoom = std::size_t{2} << 20;

}  // namespace

std::span<const iovec> PacketReader::room() {
  std::size_t used = 0;
  if (mDropping) {
    // All that had arrived belongs to the packet, so this space is free.
    mRoom[used++] = {mInput.data(), std::min(mInput.size(), mWanted - mHave)};
    return {mRoom.data(), used};
  }
  if (mInPayload) {
    if (mHave == mPayload.size()) {
      mPayload.resize(std::min(mWanted, std::max(kFirstRoom, mHave * 2)));
    }
    mRoom[used++] = {mPayload.data() + mHave, mPayload.size() - mHave};
    // What follows the payload may come with the same call.
    if (mPayload.size() < mWanted) return {mRoom.data(), used};
  }
  std::memmove(mInput.data(), mInput.data() + mInputStart, mInputEnd - mInputStart);
  mInputEnd -= std::exchange(mInputStart, 0);
  mRoom[used++] = {mInput.data() + mInputEnd, mInput.size() - mInputEnd};
  return {mRoom.data(), used};
}

Status PacketReader::consume(std::size_t count, const Sink& sink) {
  if (mInPayload) {
    const std::size_t taken = std::min(count, (mDropping ? mWanted : mPayload.size()) - mHave);
    mHave += taken;
    count -= taken;
    if (mHave < mWanted) return Unit{};
    finish(sink);
  }
  mInputEnd += count;
  return parse(sink);
}

Status PacketReader::parse(const Sink& sink) {
  while (mInputEnd - mInputStart >= kPacketHeaderSize) {
    wire::Cursor cursor(wire::Bytes(mInput).subspan(mInputStart, kPacketHeaderSize));
    cursor.get(mHeader);
    mHeader.toHostOrder();
    if (mHeader.magic != kPacketMagic) {
      return Error{ErrorKind::kBadReply, "the host sent bytes that are not a packet"};
    }
    if (mHeader.length < kPacketHeaderSize || mHeader.length > kMaxIncomingLength) {
      return Error{ErrorKind::kBadReply, "the host sent a packet with the impossible length " +
                                             std::to_string(mHeader.length)};
    }
    mInputStart += kPacketHeaderSize;
    mWanted = mHeader.length - kPacketHeaderSize;
    mHave = std::min(mWanted, mInputEnd - mInputStart);
    mPayload = Buffer(wire::Bytes(mInput).subspan(mInputStart, mHave));
    mInputStart += mHave;
    mInPayload = true;
    if (mHave < mWanted) return Unit{};
    finish(sink);
  }
  return Unit{};
}

void PacketReader::drop() noexcept {
  mDropping = true;
  mPayload = Buffer();
}

void PacketReader::finish(const Sink& sink) {
  mInPayload = mDropping = false;
  sink(mHeader, std::exchange(mPayload, Buffer()));
}

}  // namespace zor::client
