#include "listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "text.h"

namespace zor::host {
namespace {

constexpr int kBacklog = 16;
constexpr auto kLockPatience = std::chrono::seconds(2);

[[noreturn]] void fail(const std::string& path, const std::string& why) {
  throw std::runtime_error("cannot listen on " + printable(path) + ": " + why);
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty()) fail("\"\"", "the path is empty");
  if (path.size() >= sizeof address.sun_path) {
    fail(path, "the path is longer than " + std::to_string(sizeof address.sun_path - 1) + " bytes");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

UniqueFd makeSocket(const std::string& path) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) fail(path, std::strerror(errno));
  return socket;
}

// Two hosts that start at once must not both find the same old socket dead:
// the second would remove the first one's new socket. The lock is on the
// directory, so it leaves no file behind. A directory that may not be opened
// is used without one.
UniqueFd lockDirectoryOf(const std::string& path) {
  std::string directory = std::filesystem::path(path).parent_path();
  if (directory.empty()) directory = ".";
  UniqueFd lock(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock) return lock;
  const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
  while (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return UniqueFd();
    if (std::chrono::steady_clock::now() > deadline) {
      fail(path, "another program keeps the directory locked");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return lock;
}

void removeDeadSocket(const std::string& path, const sockaddr_un& address) {
  struct stat found {};
  if (::lstat(path.c_str(), &found) != 0) {
    if (errno == ENOENT) return;
    fail(path, std::strerror(errno));
  }
  if (!S_ISSOCK(found.st_mode)) fail(path, "there is a file that is not a socket");
  const UniqueFd probe = makeSocket(path);
  if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
      errno == EAGAIN) {  // EAGAIN: alive, with a full queue of connections
    fail(path, "a host is already serving there");
  }
  if (errno != ECONNREFUSED) fail(path, std::strerror(errno));
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) fail(path, std::strerror(errno));
}

// Sets the umask back at once: what the module creates on the disk gets the
// umask that the process was started with.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) noexcept : mOld(::umask(mask)) {}
  ~ScopedUmask() { ::umask(mOld); }
  ScopedUmask(const ScopedUmask&) = delete;
  ScopedUmask& operator=(const ScopedUmask&) = delete;

 private:
  mode_t mOld;
};

}  // namespace

Listener::Listener(const std::string& path) : mPath(path) {
  const sockaddr_un address = addressOf(path);
  const UniqueFd lock = lockDirectoryOf(path);
  removeDeadSocket(path, address);
  mSocket = makeSocket(path);
  {
    const ScopedUmask ownerOnly(0177);
    if (::bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      fail(path, std::strerror(errno));
    }
  }
  mIdentity = UniqueFd(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!mIdentity || ::listen(mSocket.get(), kBacklog) != 0) {
    const int error = errno;
    ::unlink(path.c_str());
    fail(path, std::strerror(error));
  }
}

Listener::~Listener() { removePath(); }

void Listener::removePath() noexcept {
  struct stat own {};
  struct stat found {};
  if (::fstat(mIdentity.get(), &own) == 0 && ::lstat(mPath.c_str(), &found) == 0 &&
      found.st_dev == own.st_dev && found.st_ino == own.st_ino) {
    ::unlink(mPath.c_str());
  }
}

}  // namespace zor::host
