// How much of a stream the system may hold on its way.
#pragma once

#include <sys/socket.h>

namespace zor {

/// Lets `socket` hold a few large packets, as far as the system allows it: the
/// more it holds, the less often one side has to wait for the other.
inline void enlargeSendBuffer(int socket) noexcept {
  constexpr int kBytes = 1 << 20;
  ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kBytes, sizeof kBytes);
}

}  // namespace zor
