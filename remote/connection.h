// Opening the connection to a host.
#pragma once

#include <memory>
#include <string>

#include "bandwidth.h"
#include "link.h"

namespace zor::remote {

struct ConnectionOptions {
  std::string socketPath;
  LinkOptions link;
  std::uint32_t bandwidthKbit = 0;  ///< announced every second; 0: not announced
};

/// A link over which the disk has been announced.
class Connection {
 public:
  /// Waits for the announcement for at most the link's idle timeout.
  static Result<std::unique_ptr<Connection>> open(ConnectionOptions options);

  /// The first half of `open`, which waits for nothing: a host whose queue is
  /// full is an error. Until `finish` has succeeded, only the link may be used.
  static Result<std::unique_ptr<Connection>> start(ConnectionOptions options);

  /// The second half; waits for the announcement.
  Status finish(std::chrono::milliseconds limit);

  Link& link() noexcept { return *mLink; }
  const Announcement& announcement() const noexcept { return mAnnouncement; }

 private:
  Connection(UniqueFd socket, ConnectionOptions options);

  const std::uint32_t mBandwidthKbit;
  Announcement mAnnouncement;
  std::unique_ptr<Link> mLink;
  std::unique_ptr<BandwidthAnnouncer> mBandwidth;  ///< uses mLink
};

/// Connects to a listening stream socket of the local machine. While its queue
/// is full, this waits, or fails when it shall not block; then the socket does
/// not block either.
Result<UniqueFd> connectUnix(const std::string& path, bool mayBlock = true);

}  // namespace zor::remote
