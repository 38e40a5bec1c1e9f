#include "host/listener.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "support/printable.h"

namespace zor::host {
namespace {

constexpr int kBacklog = 16;
// Each means that another host came or went meanwhile.
constexpr int kAttempts = 10;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

UniqueFd makeSocket() {
  return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

bool same(const struct stat& a, const struct stat& b) noexcept {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Replaces nothing, also where the file system cannot do that in one call.
bool moveTo(int fromDirectory, const char* from, int toDirectory, const char* to) noexcept {
  if (::syscall(SYS_renameat2, fromDirectory, from, toDirectory, to, RENAME_NOREPLACE) == 0) {
    return true;
  }
  if (errno != EINVAL && errno != ENOSYS) return false;
  return ::linkat(fromDirectory, from, toDirectory, to, 0) == 0 &&
         ::unlinkat(fromDirectory, from, 0) == 0;
}

constexpr char kSocket[] = "s", kOld[] = "old";

}  // namespace

// A directory of this process's own beside the path.
struct Listener::Stage {
  explicit Stage(int parentDirectory) : parent(parentDirectory) {
    std::uint64_t number = 0;
    if (::getrandom(&number, sizeof number, 0) != sizeof number) return;
    char text[32];
    std::snprintf(text, sizeof text, ".udisk-%016llx", static_cast<unsigned long long>(number));
    name = text;
    if (::mkdirat(parent, text, 0700) != 0) return;
    made = true;
    UniqueFd opened(::openat(parent, text, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    if (!opened || ::fstat(opened.get(), &found) != 0) return;
    errno = EPERM;
    if (found.st_uid == ::geteuid() && (found.st_mode & 077) == 0) fd = std::move(opened);
  }
  // Only when it is empty.
  ~Stage() {
    if (fd) ::unlinkat(fd.get(), kSocket, 0);
    if (made) ::unlinkat(parent, name.c_str(), AT_REMOVEDIR);
  }
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  const int parent;
  std::string name;
  bool made = false;
  UniqueFd fd;
};

void Listener::fail(const std::string& why) const {
  throw std::runtime_error("cannot listen on " + printable(mPath.empty() ? "\"\"" : mPath) + ": " +
                           why);
}

Listener::Listener(const std::string& path, std::optional<Owner> owner)
    : mPath(path), mOwner(owner) {
  if (path.empty()) fail("the path is empty");
  constexpr std::size_t kMaxLength = sizeof(sockaddr_un::sun_path) - 1;
  if (path.size() > kMaxLength) {
    fail("the path is longer than " + std::to_string(kMaxLength) + " bytes");
  }
  const std::filesystem::path whole(path);
  mName = whole.filename();
  if (mName.empty() || mName == "." || mName == "..") fail("the path is that of a directory");
  const std::string directory = whole.has_parent_path() ? whole.parent_path().string() : ".";
  mDirectory = UniqueFd(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!mDirectory) fail(std::strerror(errno));
  deadSocket();  // what is in the way is said before anything is made

  const Stage stage(mDirectory.get());
  if (!stage.fd) fail(std::strerror(errno));
  mSocket = makeSocket();
  const sockaddr_un address =
      addressOf("/proc/self/fd/" + std::to_string(stage.fd.get()) + "/" + kSocket);
  if (!mSocket ||
      ::bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::fchmodat(stage.fd.get(), kSocket, 0600, 0) != 0 ||
      (owner &&
       ::fchownat(stage.fd.get(), kSocket, owner->user, owner->group, AT_SYMLINK_NOFOLLOW) != 0) ||
      ::listen(mSocket.get(), kBacklog) != 0) {
    fail(std::strerror(errno));
  }
  mIdentity = UniqueFd(::openat(stage.fd.get(), kSocket, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!mIdentity) fail(std::strerror(errno));
  publish(stage);
}

Listener::~Listener() { removePath(); }

// The socket of a host that is gone, or nothing. Anything else there is an error.
std::optional<struct stat> Listener::deadSocket() const {
  struct stat found {};
  if (::fstatat(mDirectory.get(), mName.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return std::nullopt;
    fail(std::strerror(errno));
  }
  if (!S_ISSOCK(found.st_mode)) fail("there is a file that is not a socket");
  const UniqueFd probe = makeSocket();
  if (!probe) fail(std::strerror(errno));
  const sockaddr_un address = addressOf(mPath);
  if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
      errno == EAGAIN) {  // EAGAIN: alive, with a full queue of connections
    fail("a host is already serving there");
  }
  if (errno == ENOENT) return std::nullopt;
  if (errno != ECONNREFUSED) fail(std::strerror(errno));
  if (found.st_uid != ::geteuid() && !(mOwner && found.st_uid == mOwner->user)) {
    fail("there is a socket of user " + std::to_string(found.st_uid) +
         " that nobody listens on; remove it if it is not needed");
  }
  return found;
}

void Listener::publish(const Stage& stage) const {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (moveTo(stage.fd.get(), kSocket, mDirectory.get(), mName.c_str())) return;
    if (errno != EEXIST) fail(std::strerror(errno));
    if (const auto dead = deadSocket()) takeAway(*dead, stage);
  }
  fail("other programs keep making and removing it");
}

// Whatever is there goes to where nobody else can exchange it; only then is it known to be the
// one that is dead, and removed.
void Listener::takeAway(const struct stat& dead, const Stage& stage) const {
  if (::renameat(mDirectory.get(), mName.c_str(), stage.fd.get(), kOld) != 0) {
    if (errno != ENOENT) fail(std::strerror(errno));
    return;
  }
  struct stat taken {};
  if (::fstatat(stage.fd.get(), kOld, &taken, AT_SYMLINK_NOFOLLOW) == 0 && same(taken, dead)) {
    ::unlinkat(stage.fd.get(), kOld, 0);
  } else if (!moveTo(stage.fd.get(), kOld, mDirectory.get(), mName.c_str())) {
    fail("something else came there meanwhile; it is now " + stage.name + "/" + kOld);
  }
}

// While the socket still listens, no other host takes the place.
void Listener::removePath() noexcept {
  struct stat own {};
  struct stat found {};
  if (::fstat(mIdentity.get(), &own) == 0 &&
      ::fstatat(mDirectory.get(), mName.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
      same(own, found)) {
    ::unlinkat(mDirectory.get(), mName.c_str(), 0);
  }
}

}  // namespace zor::host
