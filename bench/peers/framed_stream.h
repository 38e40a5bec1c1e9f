// The client of both servers: one thread that writes requests and reads
// replies. What differs is where a frame says how long it is.
#pragma once

#include <sys/uio.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "protocol/codec.h"
#include "support/unique_fd.h"

namespace zor::bench {

/// The socket and its buffers.
class ByteStream {
 public:
  explicit ByteStream(UniqueFd socket);

  /// Adds `count` bytes to what is sent, to be filled in before `flush`.
  std::byte* add(std::size_t count);
  /// Adds bytes that stay where they are until `flush`.
  void refer(wire::Bytes bytes) { mParts.push_back(part(bytes)); }
  /// Sends all that was added, with as few calls as possible. Throws
  /// std::runtime_error.
  void flush();

 protected:
  /// Waits for bytes, at most `count`. Throws std::runtime_error also when none
  /// come for long.
  void receiveSome(std::size_t count);
  wire::Bytes received() const noexcept { return {mInput.data() + mBegin, mEnd - mBegin}; }
  void consume(std::size_t count) noexcept { mBegin += count; }

 private:
  static iovec part(wire::Bytes bytes) {
    return {const_cast<std::byte*>(bytes.data()), bytes.size()};
  }

  UniqueFd mSocket;
  std::array<std::byte, std::size_t{256} << 10> mHeads;
  std::size_t mHeadsEnd = 0;
  std::vector<iovec> mParts;
  std::vector<std::byte> mInput;
  std::size_t mBegin = 0;
  std::size_t mEnd = 0;
};

/// `Format::kHeadSize` bytes yield `Format::length(head)`, the length of the
/// whole frame, and `Format::id(frame)` what it answers.
template <class Format>
class FramedStream : public ByteStream {
 public:
  using ByteStream::ByteStream;

  /// Waits for at least one frame and hands all that have arrived to
  /// `sink(wire::Bytes frame)`.
  template <class Sink>
  void receive(Sink sink) {
    for (bool any = false; !any;) {
      receiveSome(wanted());
      for (wire::Bytes frame = complete(); !frame.empty(); frame = complete()) {
        consume(frame.size());
        sink(frame);
        any = true;
      }
    }
  }

  /// Keeps up to `slots` items in flight until it is over; returns how many
  /// there were. `begin(slot)` sends the first request of a new item, and
  /// `proceed(slot, frame)` says whether that was its last reply.
  template <class Until, class Begin, class Proceed>
  std::uint64_t pump(unsigned slots, const Until& until, Begin begin, Proceed proceed) {
    std::uint64_t begun = 0;
    unsigned active = 0;
    for (; active < slots && (begun == 0 || !until.over(begun)); ++begun) begin(active++);
    while (active > 0) {
      flush();
      receive([&](wire::Bytes frame) {
        const std::uint32_t slot = Format::id(frame);
        if (slot >= slots) throw std::runtime_error("a reply to nothing");
        if (!proceed(slot, frame)) return;
        if (until.over(begun)) {
          --active;
        } else {
          begin(slot);
          ++begun;
        }
      });
    }
    return begun;
  }

 private:
  static constexpr std::size_t kSmallFrame = std::size_t{16} << 10;
  static constexpr std::size_t kReadAhead = std::size_t{64} << 10;

  /// Many small frames at once, but little behind a large one, which would
  /// have to be moved.
  std::size_t wanted() const {
    const wire::Bytes have = received();
    if (have.size() < Format::kHeadSize) return kReadAhead;
    const std::size_t length = Format::length(have.data());
    return length < kSmallFrame ? kReadAhead : length - have.size() + 4096;
  }

  wire::Bytes complete() const {
    const wire::Bytes have = received();
    if (have.size() < Format::kHeadSize) return {};
    const std::size_t length = Format::length(have.data());
    return have.size() < length ? wire::Bytes() : have.first(length);
  }
};

}  // namespace zor::bench
