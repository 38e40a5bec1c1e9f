// Makes a local stream as slow to answer as a long line.
#pragma once

#include <poll.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <list>
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

  /// Drops all connections at once, with all that is under way.
  void cut();

  /// Removes the socket, so that nothing can connect; connections stay.
  void stopListening();

  /// Makes the socket again.
  void resumeListening();

  /// Waits until every connection has ended by itself or was cut.
  void waitUntilIdle();

 private:
  using Clock = std::chrono::steady_clock;

  struct Piece {
    Clock::time_point due;
    std::string bytes;  ///< none: the end of the data
  };

  /// One direction; it is over once both descriptors have been given back.
  struct Direction {
    UniqueFd in;
    UniqueFd out;
    std::deque<Piece> queue{};
    std::size_t queued = 0;
    std::size_t sent = 0;  ///< of the first piece
    bool blocked = false;  ///< `out` took less than was due
  };

  struct Connection {
    Direction forth;
    Direction back;
  };

  void run();
  void accept();
  void pump(Direction& direction);
  void take(Direction& direction);
  void give(Direction& direction);
  void wait(std::unique_lock<std::mutex>& lock);
  void watch(const Direction& direction, Clock::time_point& due);
  void wake() const;
  void dropAll();

  const std::chrono::nanoseconds mDelay;
  const std::string mListenPath;
  const std::string mTargetPath;
  const UniqueFd mWakeup;
  std::vector<char> mScratch;  ///< the thread's alone, as is mPolled
  std::vector<pollfd> mPolled;

  std::mutex mMutex;  ///< held by the thread except while it waits
  std::condition_variable mIdle;
  UniqueFd mListener;
  std::list<Connection> mConnections;
  bool mStop = false;

  std::thread mThread;  ///< the last member: it uses all the others
};

}  // namespace zor::test
