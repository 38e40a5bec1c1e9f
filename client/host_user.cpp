#include "client/host_user.h"

#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <vector>

namespace zor::client {

namespace {

/// Calls `find`, which fills in an entry with a reentrant function of <pwd.h>, with as much
/// space as the entry needs, and gives what `take` makes of the entry.
template <class Find, class Take>
auto lookUp(Find find, Take take) -> std::optional<decltype(take(passwd()))> {
  constexpr std::size_t kMaxSize = std::size_t{1} << 20;
  for (std::vector<char> space(1024); space.size() <= kMaxSize; space.resize(space.size() * 2)) {
    passwd entry{};
    passwd* found = nullptr;
    const int error = find(&entry, space, &found);
    if (error == 0 && found != nullptr) return take(*found);
    if (error != ERANGE) break;
  }
  return std::nullopt;
}

std::optional<std::string> nameOf(uid_t user) {
  return lookUp(
      [user](passwd* entry, std::vector<char>& space, passwd** found) {
        return ::getpwuid_r(user, entry, space.data(), space.size(), found);
      },
      [](const passwd& entry) { return std::string(entry.pw_name); });
}

}  // namespace

std::optional<uid_t> userNumber(const std::string& nameOrNumber) {
  const auto found = lookUp(
      [&](passwd* entry, std::vector<char>& space, passwd** result) {
        return ::getpwnam_r(nameOrNumber.c_str(), entry, space.data(), space.size(), result);
      },
      [](const passwd& entry) { return entry.pw_uid; });
  if (found) return found;
  uid_t number = 0;
  const char* end = nameOrNumber.data() + nameOrNumber.size();
  const auto parsed = std::from_chars(nameOrNumber.data(), end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return number;
}

std::string describeUser(uid_t user) {
  const auto name = nameOf(user);
  return name ? "user '" + *name + "'" : "user " + std::to_string(user);
}

Result<uid_t> checkHostUser(int socket, std::optional<uid_t> allowed) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return Error{ErrorKind::kRefused,
                 std::string("cannot find out which user runs the host: ") + strerror(errno)};
  }
  if (peer.uid == ::geteuid() || peer.uid == 0 || peer.uid == allowed) return peer.uid;
  const auto name = nameOf(peer.uid);
  return Error{ErrorKind::kRefused,
               "the host runs as " + describeUser(peer.uid) +
                   ", and that is neither you nor root; nothing was sent. If you trust that user " +
                   "with your files, allow it with --allow-host-user=" +
                   (name ? *name : std::to_string(peer.uid))};
}

std::string whyTurnedAway(uid_t hostUser) {
  const std::string full =
      "it serves as many clients as it may (see --max-clients of udisk-host), or its disk is gone";
  if (hostUser == ::geteuid()) return full + ", or it ended";
  return "it runs as " + describeUser(hostUser) +
         " and serves only that user, unless it was started for you with --user; or " + full;
}

}  // namespace zor::client
