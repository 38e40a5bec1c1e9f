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

  Link& link() noexcept { return *mLink; }
  const Announcement& announcement() const noexcept { return mAnnouncement; }

 private:
  Connection() = default;

  Announcement mAnnouncement;
  std::unique_ptr<Link> mLink;
  std::unique_ptr<BandwidthAnnouncer> mBandwidth;  ///< uses mLink
};

/// Connects to a listening stream socket of the local machine.
Result<UniqueFd> connectUnix(const std::string& path);

}  // namespace zor::remote
