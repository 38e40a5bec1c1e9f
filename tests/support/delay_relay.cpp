#include "delay_relay.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <condition_variable>
#include <csignal>
#include <deque>
#include <system_error>

namespace zor::test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kReadSize = std::size_t{256} << 10;

[[noreturn]] void fail(const std::string& what, int error = errno) {
  throw std::system_error(error, std::generic_category(), what);
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) fail(path, ENAMETOOLONG);
  path.copy(address.sun_path, path.size());
  return address;
}

template <class Call>
bool withAddress(Call call, const UniqueFd& fd, const sockaddr_un& address) {
  return call(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

DelayRelay::End endOf(UniqueFd socket) {
  UniqueFd duplicate(::fcntl(socket.get(), F_DUPFD_CLOEXEC, 0));
  return {std::move(duplicate), std::move(socket)};
}

}  // namespace

/// One thread takes what comes, the other one gives it when it is due.
class DelayRelay::Direction {
 public:
  Direction(UniqueFd in, UniqueFd out, const std::atomic<std::chrono::nanoseconds>& delay)
      : mDelay(delay), mIn(std::move(in)), mOut(std::move(out)) {
    mTaking = std::thread(&Direction::take, this);
    mGiving = std::thread(&Direction::give, this);
  }
  ~Direction() {
    cut();
    mTaking.join();
    mGiving.join();
  }

  void cut() {
    const std::lock_guard lock(mMutex);
    mCut = true;
    mChanged.notify_all();
    ::shutdown(mIn.get(), SHUT_RDWR);
    ::shutdown(mOut.get(), SHUT_RDWR);
  }
  bool over() {
    const std::lock_guard lock(mMutex);
    return !mIn && !mOut;
  }
  void wait() {
    std::unique_lock lock(mMutex);
    mChanged.wait(lock, [this] { return !mIn && !mOut; });
  }

 private:
  struct Piece {
    Clock::time_point due;
    std::string bytes;  ///< none: the end of the data
  };

  void take() {
    std::string room(kReadSize, '\0');
    std::unique_lock lock(mMutex);
    for (ssize_t got = 1; got > 0 && !mCut;) {
      lock.unlock();
      got = retryOnInterrupt([&] { return ::read(mIn.get(), room.data(), room.size()); });
      lock.lock();
      const std::size_t size = got > 0 ? static_cast<std::size_t>(got) : 0;
      mQueue.push_back({Clock::now() + mDelay.load(), room.substr(0, size)});
      mQueued += size;
      mChanged.notify_all();
      mChanged.wait(lock, [this] { return mCut || mQueued < kQueueLimit; });
    }
    mIn.reset();
    mChanged.notify_all();
  }

  void give() {
    // A peer that is gone shows as EPIPE.
    sigset_t pipe;
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    std::unique_lock lock(mMutex);
    while (true) {
      mChanged.wait(lock, [this] { return mCut || !mQueue.empty(); });
      if (mCut) break;
      const Piece piece = std::move(mQueue.front());
      mQueue.pop_front();
      mChanged.wait_until(lock, piece.due, [this] { return mCut; });
      if (mCut || piece.bytes.empty()) break;
      lock.unlock();
      const bool written = write(piece.bytes);
      lock.lock();
      mQueued -= piece.bytes.size();
      mCut = mCut || !written;
      mChanged.notify_all();
    }
    // Where nobody takes it any more, the sender is to know with its next write.
    if (mCut && mIn) ::shutdown(mIn.get(), SHUT_RD);
    ::shutdown(mOut.get(), SHUT_WR);
    mOut.reset();
    mChanged.notify_all();
  }

  bool write(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t written =
          retryOnInterrupt([&] { return ::write(mOut.get(), bytes.data(), bytes.size()); });
      if (written < 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
  }

  const std::atomic<std::chrono::nanoseconds>& mDelay;
  std::mutex mMutex;
  std::condition_variable mChanged;
  UniqueFd mIn;   ///< given back when its thread has ended, as is mOut
  UniqueFd mOut;  ///< closing alone would not tell the peer: it may have a duplicate
  std::deque<Piece> mQueue;
  std::size_t mQueued = 0;
  bool mCut = false;
  std::thread mTaking;
  std::thread mGiving;
};

DelayRelay::DelayRelay(std::chrono::nanoseconds delay) : mDelay(delay) {}

DelayRelay::DelayRelay(const std::string& listenPath, const std::string& targetPath,
                       std::chrono::nanoseconds delay)
    : mDelay(delay),
      mListenPath(listenPath),
      mListener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_un target = addressOf(targetPath);
  ::unlink(listenPath.c_str());
  if (!withAddress(::bind, mListener, addressOf(listenPath))) fail(listenPath);
  if (::listen(mListener.get(), SOMAXCONN) != 0) fail(listenPath);
  mAccepting = std::thread([this, target] {
    while (UniqueFd left{::accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC)}) {
      UniqueFd right(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      if (withAddress(::connect, right, target)) {
        add(endOf(std::move(left)), endOf(std::move(right)));
      }
    }
  });
}

DelayRelay::~DelayRelay() {
  if (!mAccepting.joinable()) return;
  ::shutdown(mListener.get(), SHUT_RDWR);
  mAccepting.join();
  ::unlink(mListenPath.c_str());
}

void DelayRelay::add(End left, End right) {
  const std::lock_guard lock(mMutex);
  std::erase_if(mDirections, [](const auto& direction) { return direction->over(); });
  mDirections.push_back(
      std::make_unique<Direction>(std::move(left.in), std::move(right.out), mDelay));
  mDirections.push_back(
      std::make_unique<Direction>(std::move(right.in), std::move(left.out), mDelay));
}

void DelayRelay::cut() {
  const std::lock_guard lock(mMutex);
  for (const auto& direction : mDirections) direction->cut();
}

void DelayRelay::waitUntilIdle() {
  const std::lock_guard lock(mMutex);
  for (const auto& direction : mDirections) direction->wait();
}

}  // namespace zor::test
