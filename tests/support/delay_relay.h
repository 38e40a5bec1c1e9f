// Makes a local stream as slow to answer as a long line.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/unique_fd.h"

namespace zor::test {

/// Passes bytes on between pairs of streams, in both directions, each byte
/// `delay` after it came; connecting is not delayed. The pace is not limited,
/// but a direction takes no more while kQueueLimit bytes of it are under way.
/// An end of data, or of a whole connection, takes as long as the bytes before
/// it.
///
/// All members may be called from any thread. Failures of set-up are thrown as
/// std::system_error.
class DelayRelay {
 public:
  static constexpr std::size_t kQueueLimit = std::size_t{64} << 20;

  /// The two halves of one end. A socket is both: give one descriptor and its
  /// duplicate.
  struct End {
    UniqueFd in;
    UniqueFd out;
  };

  explicit DelayRelay(std::chrono::nanoseconds delay);

  /// Also takes connections at `listenPath`, a Unix socket that is made anew,
  /// each to a connection of its own to `targetPath`. One that cannot be made
  /// ends the connection that asked for it.
  DelayRelay(const std::string& listenPath, const std::string& targetPath,
             std::chrono::nanoseconds delay);

  /// Drops the connections and removes the socket.
  ~DelayRelay();

  DelayRelay(const DelayRelay&) = delete;
  DelayRelay& operator=(const DelayRelay&) = delete;

  /// Relays between two ends that are connected already.
  void add(End left, End right);

  /// Counts for the bytes that come from now on; no byte overtakes another.
  void setDelay(std::chrono::nanoseconds delay) { mDelay = delay; }

  /// Drops all connections at once, with all that is under way.
  void cut();

  /// Waits until every connection has ended by itself or was cut.
  void waitUntilIdle();

 private:
  class Direction;

  std::atomic<std::chrono::nanoseconds> mDelay;
  std::string mListenPath;
  UniqueFd mListener;
  std::mutex mMutex;
  std::vector<std::unique_ptr<Direction>> mDirections;  ///< two of each connection
  std::thread mAccepting;
};

}  // namespace zor::test
