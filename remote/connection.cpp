#include "connection.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace zor::remote {

Result<UniqueFd> connectUnix(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    return Error{ErrorKind::kRefused, "a socket's path has 1 to " +
                                          std::to_string(sizeof address.sun_path - 1) + " bytes"};
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket ||
      ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int reason = errno;
    std::string message = std::string("cannot connect to the host: ") + strerror(reason);
    if (reason == ENOENT || reason == ECONNREFUSED) {
      message += " (is it running with this socket?)";
    }
    return Error{ErrorKind::kLinkLost, message};
  }
  return socket;
}

Result<std::unique_ptr<Connection>> Connection::open(ConnectionOptions options) {
  Result<UniqueFd> socket = connectUnix(options.socketPath);
  if (!socket) return std::move(socket.error());
  std::unique_ptr<Connection> connection(new Connection);
  const auto limit = options.link.idleTimeout;
  connection->mLink = std::make_unique<Link>(std::move(*socket), std::move(options.link));
  Result<Announcement> announcement = connection->mLink->waitForAnnouncement(limit);
  if (!announcement) return std::move(announcement.error());
  connection->mAnnouncement = std::move(*announcement);
  if (options.bandwidthKbit != 0) {
    connection->mBandwidth =
        std::make_unique<BandwidthAnnouncer>(*connection->mLink, options.bandwidthKbit);
  }
  return connection;
}

}  // namespace zor::remote
