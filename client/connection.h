// Opening the connection to a host.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "client/bandwidth.h"
#include "client/link.h"

namespace zor::client {

struct ConnectionOptions {
  std::string socketPath;
  LinkOptions link;
  std::uint32_t bandwidthKbit = 0;  ///< announced every second; 0: not announced
  /// A user whose host is used as the own user's and root's are; no other is.
  std::optional<uid_t> allowedHostUser{};
};

/// A host turns a client away while it still serves the one before, which has left.
inline constexpr std::chrono::seconds kBusyHostPatience{2};
inline constexpr std::chrono::milliseconds kBusyHostPause{100};

/// A link over which the disk has been announced.
class Connection {
 public:
  /// Waits for the announcement for at most the link's idle timeout, and tries again for
  /// kBusyHostPatience when the host turns this client away.
  static Result<std::unique_ptr<Connection>> open(ConnectionOptions options);

  /// The first half of one attempt, which waits for nothing: a host whose queue is
  /// full is an error. Until `finish` has succeeded, only the link may be used.
  static Result<std::unique_ptr<Connection>> start(ConnectionOptions options);

  /// The second half; waits for the announcement.
  Status finish(std::chrono::milliseconds limit);

  Link& link() noexcept { return *mLink; }
  const Announcement& announcement() const noexcept { return mAnnouncement; }

 private:
  Connection(UniqueFd socket, ConnectionOptions options);
  static Result<std::unique_ptr<Connection>> start(ConnectionOptions options, bool mayBlock);

  const std::uint32_t mBandwidthKbit;
  Announcement mAnnouncement;
  std::unique_ptr<Link> mLink;
  std::unique_ptr<BandwidthAnnouncer> mBandwidth;  ///< uses mLink
};

/// Connects to a listening stream socket of the local machine. While its queue
/// is full, this waits for at most `limit`; without one it fails, and the socket does
/// not block.
Result<UniqueFd> connectUnix(const std::string& path, std::chrono::milliseconds limit);

}  // namespace zor::client
