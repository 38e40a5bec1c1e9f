// The socket that remotes connect to.
#pragma once

#include <string>

#include "support/unique_fd.h"

namespace zor::host {

/// A listening Unix stream socket with mode 0600. Its path is removed with the
/// object, provided that it is still this socket's.
class Listener {
 public:
  /// Listens on `path`. A socket left over there by a host that is gone is
  /// replaced; anything else there, and the socket of a host that lives, stays
  /// as it is and is an error. Throws std::runtime_error.
  ///
  /// Changes the process's umask for a moment: to be called before there are
  /// other threads.
  explicit Listener(const std::string& path);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Removes the path as the end does. For a process that was split off and has
  /// kept only `identity` of this object's descriptors.
  void removePath() noexcept;

  /// Holds the file at the path, so that nobody else's can be taken for it.
  int identity() const noexcept { return mIdentity.get(); }
  /// Non-blocking.
  int fd() const noexcept { return mSocket.get(); }

 private:
  const std::string mPath;
  UniqueFd mSocket;
  UniqueFd mIdentity;
};

}  // namespace zor::host
