#include "framed_stream.h"

#include <limits.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>

#include "support/send_buffer.h"

namespace zor::bench {

ByteStream::ByteStream(UniqueFd socket) : mSocket(std::move(socket)) {
  const timeval limit{30, 0};
  ::setsockopt(mSocket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(mSocket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  enlargeSendBuffer(mSocket.get());
}

std::byte* ByteStream::add(std::size_t count) {
  if (mHeadsEnd + count > mHeads.size()) flush();
  std::byte* at = mHeads.data() + mHeadsEnd;
  const bool adjacent =
      !mParts.empty() &&
      static_cast<std::byte*>(mParts.back().iov_base) + mParts.back().iov_len == at;
  if (adjacent) {
    mParts.back().iov_len += count;
  } else {
    refer({at, count});
  }
  mHeadsEnd += count;
  return at;
}

void ByteStream::flush() {
  std::span<iovec> rest(mParts);
  while (!rest.empty()) {
    msghdr message{};
    message.msg_iov = rest.data();
    message.msg_iovlen = std::min<std::size_t>(rest.size(), IOV_MAX);
    const ssize_t sent =
        retryOnInterrupt([&] { return ::sendmsg(mSocket.get(), &message, MSG_NOSIGNAL); });
    if (sent < 0) throw std::runtime_error(std::string("cannot send: ") + std::strerror(errno));
    auto count = static_cast<std::size_t>(sent);
    while (!rest.empty() && count >= rest.front().iov_len) {
      count -= rest.front().iov_len;
      rest = rest.subspan(1);
    }
    if (count > 0) {
      rest.front().iov_base = static_cast<std::byte*>(rest.front().iov_base) + count;
      rest.front().iov_len -= count;
    }
  }
  mParts.clear();
  mHeadsEnd = 0;
}

void ByteStream::receiveSome(std::size_t count) {
  std::memmove(mInput.data(), mInput.data() + mBegin, mEnd - mBegin);
  mEnd -= mBegin;
  mBegin = 0;
  if (mInput.size() < mEnd + count) mInput.resize(mEnd + count);
  const ssize_t got =
      retryOnInterrupt([&] { return ::recv(mSocket.get(), mInput.data() + mEnd, count, 0); });
  if (got < 0) throw std::runtime_error(std::string("cannot receive: ") + std::strerror(errno));
  if (got == 0) throw std::runtime_error("the server ended");
  mEnd += static_cast<std::size_t>(got);
}

}  // namespace zor::bench
