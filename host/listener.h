// The socket that clients connect to.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <optional>
#include <string>

#include "support/unique_fd.h"

namespace zor::host {

/// A listening Unix stream socket with mode 0600. Its path is removed with the
/// object, provided that it is still this socket's.
class Listener {
 public:
  struct Owner {
    uid_t user;
    gid_t group;
  };

  /// Listens on `path`. A socket that was left by a host that is gone is
  /// replaced when it is this user's or `owner`'s; anything else there, and the socket of a
  /// host that lives, stays as it is and is an error. Throws std::runtime_error.
  ///
  /// The socket gets its mode and its owner (the caller's own user without one) in a directory
  /// that nobody else can enter, and then its name in one step that replaces nothing. So two
  /// hosts that start at once do not remove each other's socket, whatever others lock, and
  /// nothing but that socket can come to belong to `owner`.
  explicit Listener(const std::string& path, std::optional<Owner> owner = std::nullopt);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Ends listening; the path stays.
  void close() noexcept { mSocket.reset(); }

  /// Removes the path as the end does. For a process that was split off and has
  /// kept only `kept` of this object's descriptors.
  void removePath() noexcept;

  /// They hold the file at the path, so that nobody else's can be taken for it.
  std::array<int, 2> kept() const noexcept { return {mDirectory.get(), mIdentity.get()}; }
  /// Non-blocking.
  int fd() const noexcept { return mSocket.get(); }

 private:
  struct Stage;

  std::optional<struct stat> deadSocket() const;
  void publish(const Stage& stage) const;
  void takeAway(const struct stat& dead, const Stage& stage) const;
  [[noreturn]] void fail(const std::string& why) const;

  const std::string mPath;
  const std::optional<Owner> mOwner;
  std::string mName;    ///< the last component of the path
  UniqueFd mDirectory;  ///< the others
  UniqueFd mSocket;
  UniqueFd mIdentity;
};

}  // namespace zor::host
