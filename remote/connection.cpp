#include "connection.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "support/send_buffer.h"

namespace zor::remote {

Result<UniqueFd> connectUnix(const std::string& path, bool mayBlock) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    return Error{ErrorKind::kRefused, "a socket's path has 1 to " +
                                          std::to_string(sizeof address.sun_path - 1) + " bytes"};
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  UniqueFd socket(
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (mayBlock ? 0 : SOCK_NONBLOCK), 0));
  if (!socket ||
      ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int reason = errno;
    std::string message = std::string("cannot connect to the host: ") + strerror(reason);
    if (reason == ENOENT || reason == ECONNREFUSED) {
      message += " (is it running with this socket?)";
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
  Result<UniqueFd> socket = connectUnix(options.socketPath);
  if (!socket) return std::move(socket.error());
  const auto limit = options.link.idleTimeout;
  std::unique_ptr<Connection> connection(new Connection(std::move(*socket), std::move(options)));
  Status announced = connection->finish(limit);
  if (!announced) return std::move(announced.error());
  return connection;
}

Result<std::unique_ptr<Connection>> Connection::start(ConnectionOptions options) {
  Result<UniqueFd> socket = connectUnix(options.socketPath, false);
  if (!socket) return std::move(socket.error());
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

}  // namespace zor::remote
