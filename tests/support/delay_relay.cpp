#include "delay_relay.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <system_error>
#include <utility>

namespace zor::test {

namespace {

constexpr std::size_t kReadSize = std::size_t{256} << 10;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    fail(path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

template <class Call>
int withAddress(Call call, const UniqueFd& fd, const std::string& path) {
  const sockaddr_un address = addressOf(path);
  return call(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

UniqueFd listenAt(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) fail("socket");
  ::unlink(path.c_str());
  if (withAddress(::bind, fd, path) != 0 || ::listen(fd.get(), SOMAXCONN) != 0) fail(path);
  return fd;
}

bool setNonBlocking(const UniqueFd& fd) {
  const int flags = ::fcntl(fd.get(), F_GETFL);
  return flags >= 0 && ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) == 0;
}

bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

/// Gives back one half. A socket's other half may still be in use by the other
/// direction, so that closing alone would not tell the peer.
void endHalf(UniqueFd& fd, int how) {
  ::shutdown(fd.get(), how);
  fd.reset();
}

}  // namespace

DelayRelay::DelayRelay(std::chrono::nanoseconds delay) : DelayRelay({}, {}, delay) {}

DelayRelay::DelayRelay(const std::string& listenPath, const std::string& targetPath,
                       std::chrono::nanoseconds delay)
    : mDelay(delay),
      mListenPath(listenPath),
      mTargetPath(targetPath),
      mWakeup(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mScratch(kReadSize) {
  if (!mWakeup) fail("eventfd");
  addressOf(mTargetPath);  // too long a path shows now
  if (!mListenPath.empty()) mListener = listenAt(mListenPath);
  mThread = std::thread(&DelayRelay::run, this);
}

DelayRelay::~DelayRelay() {
  {
    const std::lock_guard lock(mMutex);
    mStop = true;
    dropAll();
  }
  wake();
  mThread.join();
  if (mListener) ::unlink(mListenPath.c_str());
}

void DelayRelay::add(End left, End right) {
  for (const UniqueFd* fd : {&left.in, &left.out, &right.in, &right.out}) {
    if (!setNonBlocking(*fd)) fail("O_NONBLOCK");
  }
  {
    const std::lock_guard lock(mMutex);
    mConnections.push_back(
        {{std::move(left.in), std::move(right.out)}, {std::move(right.in), std::move(left.out)}});
  }
  wake();
}

void DelayRelay::cut() {
  {
    const std::lock_guard lock(mMutex);
    dropAll();
  }
  wake();
}

void DelayRelay::dropAll() {
  for (Connection& connection : mConnections) {
    for (Direction* direction : {&connection.forth, &connection.back}) {
      // The thread may be waiting for them, which keeps them open for a moment.
      ::shutdown(direction->in.get(), SHUT_RDWR);
      ::shutdown(direction->out.get(), SHUT_RDWR);
    }
  }
  mConnections.clear();
  mIdle.notify_all();
}

void DelayRelay::stopListening() {
  {
    const std::lock_guard lock(mMutex);
    if (!mListener) return;
    ::unlink(mListenPath.c_str());
    endHalf(mListener, SHUT_RDWR);
  }
  wake();
}

void DelayRelay::resumeListening() {
  {
    const std::lock_guard lock(mMutex);
    if (mListener || mListenPath.empty()) return;
    mListener = listenAt(mListenPath);
  }
  wake();
}

void DelayRelay::waitUntilIdle() {
  std::unique_lock lock(mMutex);
  mIdle.wait(lock, [this] { return mConnections.empty(); });
}

void DelayRelay::wake() const {
  const eventfd_t one = 1;
  ::eventfd_write(mWakeup.get(), one);
}

void DelayRelay::run() {
  // A peer that is gone shows as EPIPE.
  sigset_t pipe;
  ::sigemptyset(&pipe);
  ::sigaddset(&pipe, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

  std::unique_lock lock(mMutex);
  while (!mStop) {
    for (Connection& connection : mConnections) {
      pump(connection.forth);
      pump(connection.back);
    }
    const std::size_t over = std::erase_if(mConnections, [](const Connection& connection) {
      return !connection.forth.out && !connection.back.out;
    });
    if (over != 0) mIdle.notify_all();
    wait(lock);
  }
}

/// Waits until something can be read, written or accepted, or a piece is due.
void DelayRelay::wait(std::unique_lock<std::mutex>& lock) {
  mPolled.assign({{mWakeup.get(), POLLIN, 0}, {mListener.get(), POLLIN, 0}});
  Clock::time_point due = Clock::time_point::max();
  for (const Connection& connection : mConnections) {
    watch(connection.forth, due);
    watch(connection.back, due);
  }
  timespec left{};
  if (due != Clock::time_point::max()) {
    const std::chrono::nanoseconds time =
        std::max<std::chrono::nanoseconds>(due - Clock::now(), std::chrono::nanoseconds::zero());
    left.tv_sec = static_cast<time_t>(time.count() / 1'000'000'000);
    left.tv_nsec = static_cast<long>(time.count() % 1'000'000'000);
  }
  lock.unlock();
  ::ppoll(mPolled.data(), mPolled.size(), due == Clock::time_point::max() ? nullptr : &left,
          nullptr);
  lock.lock();
  eventfd_t woken = 0;
  ::eventfd_read(mWakeup.get(), &woken);
  if ((mPolled[1].revents & POLLIN) != 0 && mListener) accept();
}

void DelayRelay::watch(const Direction& direction, Clock::time_point& due) {
  if (direction.in && direction.queued < kQueueLimit) {
    mPolled.push_back({direction.in.get(), POLLIN, 0});
  }
  if (direction.blocked) {
    mPolled.push_back({direction.out.get(), POLLOUT, 0});
  } else if (!direction.queue.empty()) {
    due = std::min(due, direction.queue.front().due);
  }
}

void DelayRelay::accept() {
  UniqueFd left(::accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!left) return;
  UniqueFd right(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!right || withAddress(::connect, right, mTargetPath) != 0 || !setNonBlocking(right)) return;
  UniqueFd leftIn(::fcntl(left.get(), F_DUPFD_CLOEXEC, 0));
  UniqueFd rightIn(::fcntl(right.get(), F_DUPFD_CLOEXEC, 0));
  if (!leftIn || !rightIn) return;
  mConnections.push_back(
      {{std::move(leftIn), std::move(right)}, {std::move(rightIn), std::move(left)}});
}

void DelayRelay::pump(Direction& direction) {
  take(direction);
  give(direction);
}

/// Reads what has come: one piece at a time, so that none of the others waits.
void DelayRelay::take(Direction& direction) {
  if (!direction.in || direction.queued >= kQueueLimit) return;
  const ssize_t got = retryOnInterrupt(
      [&] { return ::read(direction.in.get(), mScratch.data(), mScratch.size()); });
  if (got < 0 && wouldBlock()) return;
  const Clock::time_point due = Clock::now() + mDelay;
  if (got <= 0) {
    direction.queue.push_back({due, {}});
    direction.in.reset();
    return;
  }
  const auto size = static_cast<std::size_t>(got);
  direction.queue.push_back({due, std::string(mScratch.data(), size)});
  direction.queued += size;
}

/// Writes what is due.
void DelayRelay::give(Direction& direction) {
  direction.blocked = false;
  while (!direction.queue.empty() && direction.queue.front().due <= Clock::now()) {
    const std::string& bytes = direction.queue.front().bytes;
    if (bytes.empty()) {
      direction.queue.clear();
      endHalf(direction.out, SHUT_WR);
      return;
    }
    const ssize_t written = retryOnInterrupt([&] {
      return ::write(direction.out.get(), bytes.data() + direction.sent,
                     bytes.size() - direction.sent);
    });
    if (written < 0 && wouldBlock()) {
      direction.blocked = true;
      return;
    }
    if (written < 0) {
      // Nobody takes it any more: the sender is to know with its next write.
      direction.queue.clear();
      if (direction.in) endHalf(direction.in, SHUT_RD);
      endHalf(direction.out, SHUT_WR);
      return;
    }
    direction.sent += static_cast<std::size_t>(written);
    direction.queued -= static_cast<std::size_t>(written);
    if (direction.sent < bytes.size()) continue;
    direction.queue.pop_front();
    direction.sent = 0;
  }
}

}  // namespace zor::test
