#include "client/connection.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "client/host_user.h"
#include "support/send_buffer.h"

namespace zor::client {

Result<UniqueFd> connectUnix(const std::string& path, std::chrono::milliseconds limit) {
  const bool mayBlock = limit.count() > 0;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    return Error{ErrorKind::kRefused, "a socket's path has 1 to " +
                                          std::to_string(sizeof address.sun_path - 1) + " bytes"};
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  UniqueFd socket(
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (mayBlock ? 0 : SOCK_NONBLOCK), 0));
  if (socket && mayBlock) {
    // Also the time that connecting may take.
    const timeval time{limit.count() / 1000, limit.count() % 1000 * 1000};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
  }
  if (!socket ||
      ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int reason = errno;
    std::string message = std::string("cannot connect to the host: ") + strerror(reason);
    if (reason == ENOENT || reason == ECONNREFUSED) {
      message += " (is it running with this socket?)";
    } else if (reason == EAGAIN) {
      message = "the host takes no connections; its queue is full";
    }
    return Error{ErrorKind::kLinkLost, message};
  }
  enlargeSendBuffer(socket.get());
  return socket;
}

Connection::Connection(UniqueFd socket, ConnectionOptions options)
    : mBandwidthKbit(options.bandwidthKbit),
      mLink(std::make_unique<Link>(std::move(socket), std::move(options.link))) {}

Result<std::unique_ptr<Connection>> Connection::open(ConnectionOptions options) {
  const auto patience = std::chrono::steady_clock::now() + kBusyHostPatience;
  for (;;) {
    auto connection = start(options, true);
    if (!connection) return connection;
    const Status announced = (*connection)->finish(options.link.idleTimeout);
    if (announced) return connection;
    const bool turnedAway = (*connection)->link().turnedAway();
    if (!turnedAway || std::chrono::steady_clock::now() > patience) return announced.error();
    connection->reset();
    std::this_thread::sleep_for(kBusyHostPause);
  }
}

Result<std::unique_ptr<Connection>> Connection::start(ConnectionOptions options) {
  return start(std::move(options), false);
}

Result<std::unique_ptr<Connection>> Connection::start(ConnectionOptions options, bool mayBlock) {
  Result<UniqueFd> socket = connectUnix(
      options.socketPath, mayBlock ? options.link.idleTimeout : std::chrono::milliseconds(0));
  if (!socket) return std::move(socket.error());
  const Result<uid_t> user = checkHostUser(socket->get(), options.allowedHostUser);
  if (!user) return user.error();
  options.link.whyTurnedAway = whyTurnedAway(*user);
  return std::unique_ptr<Connection>(new Connection(std::move(*socket), std::move(options)));
}

Status Connection::finish(std::chrono::milliseconds limit) {
  Result<Announcement> announcement = mLink->waitForAnnouncement(limit);
  if (!announcement) return std::move(announcement.error());
  mAnnouncement = std::move(*announcement);
  if (mBandwidthKbit != 0)
    mBandwidth = std::make_unique<BandwidthAnnouncer>(*mLink, mBandwidthKbit);
  return Unit{};
}

}  // namespace zor::client
