#include "host/log_sink.h"

#include <poll.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/spdlog.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <utility>

#include "support/unique_fd.h"

namespace zor::host {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMaxQueued = 1 << 20;
constexpr auto kDirectPatience = 100ms;
// At the end: how long without any progress, and in all.
constexpr auto kStillTimeout = 500ms;
constexpr auto kEndTimeout = 2s;

// A pipe that is ready takes a piece of PIPE_BUF whole, so these writes do not block.
bool isReady(int fd, std::chrono::milliseconds patience) {
  pollfd ready{fd, POLLOUT, 0};
  return retryOnInterrupt([&] { return ::poll(&ready, 1, static_cast<int>(patience.count())); }) >
         0;
}

}  // namespace

LogSink::LogSink(int fd) : mFd(fd), mFormatter(std::make_unique<spdlog::pattern_formatter>()) {
  mLimit.write = [this](const std::string& text) {
    mMutex.assertHeld();
    putNotice(text);
  };
}

void LogSink::startThread() {
  // Signals are for the thread that serves.
  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const MutexLock lock(mMutex);
  mState = State::kThread;
  mThread = std::thread([this] { runThread(); });
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void LogSink::stopThread() noexcept {
  MutexLock lock(mMutex);
  mLimit.report();
  if (mState != State::kThread) return;
  mState = State::kStopping;
  mToWrite.notifyOne();
  const auto end = std::chrono::steady_clock::now() + kEndTimeout;
  bool moves = true;
  while (mState == State::kStopping && moves && std::chrono::steady_clock::now() < end) {
    const std::uint64_t before = mPieces;
    const auto still = std::chrono::steady_clock::now() + kStillTimeout;
    while (mState == State::kStopping && mPieces == before && mProgress.waitUntil(mMutex, still)) {
    }
    moves = mState != State::kStopping || mPieces != before;
  }
  if (mState == State::kStopping) {
    mState = State::kHanging;
    mThread.detach();
    return;
  }
  lock.unlock();
  mThread.join();
}

void LogSink::log(const spdlog::details::log_msg& line) {
  const MutexLock lock(mMutex);
  const std::string_view text(line.payload.data(), line.payload.size());
  if (line.level >= spdlog::level::info) {
    const bool wasPending = mLimit.isPending();
    if (!mLimit.admits(text, std::chrono::steady_clock::now())) {
      if (!wasPending) mToWrite.notifyOne();  // the thread reports it when the period is over
      return;
    }
  }
  put(line);
}

void LogSink::print(const std::string& text) {
  const MutexLock lock(mMutex);
  if (mState == State::kDirect) writeDirectly(text);
}

void LogSink::set_pattern(const std::string& pattern) {
  set_formatter(std::make_unique<spdlog::pattern_formatter>(pattern));
}

void LogSink::set_formatter(std::unique_ptr<spdlog::formatter> formatter) {
  const MutexLock lock(mMutex);
  mFormatter = std::move(formatter);
}

void LogSink::put(const spdlog::details::log_msg& line) {
  spdlog::memory_buf_t text;
  mFormatter->format(line, text);
  const std::string_view bytes(text.data(), text.size());
  if (mState == State::kDirect) {
    writeDirectly(bytes);
    return;
  }
  // After a loss there must be room for more than one line, or every other line would report it.
  const std::size_t room = mLost > 0 ? kMaxQueued / 2 : kMaxQueued;
  if (mState == State::kHanging || mQueue.size() + bytes.size() > room) {
    ++mLost;
    return;
  }
  reportLoss();
  mQueue += bytes;
  mToWrite.notifyOne();
}

void LogSink::putNotice(const std::string& text) {
  put(spdlog::details::log_msg("udisk-host", spdlog::level::warn, text));
}

void LogSink::reportLoss() {
  const std::uint64_t lost = std::exchange(mLost, 0);
  if (lost == 0) return;
  putNotice(std::to_string(lost) + " lines were left out here: nobody read them in time");
}

void LogSink::writeDirectly(std::string_view line) {
  if (mLost > 0 && isReady(mFd, 0ms)) reportLoss();
  if (mTorn && isReady(mFd, kDirectPatience)) mTorn = ::write(mFd, "\n", 1) != 1;
  for (bool begun = false; !line.empty(); begun = true) {
    ssize_t count = -1;
    if (isReady(mFd, kDirectPatience)) {
      count = retryOnInterrupt(
          [&] { return ::write(mFd, line.data(), std::min<std::size_t>(line.size(), PIPE_BUF)); });
    }
    if (count <= 0) {
      mTorn = mTorn || begun;
      ++mLost;
      return;
    }
    line.remove_prefix(static_cast<std::size_t>(count));
  }
}

void LogSink::runThread() {
  ::prctl(PR_SET_NAME, "udisk-log");
  MutexLock lock(mMutex);
  while (mState != State::kHanging) {
    if (!mQueue.empty()) {
      writeOut(std::exchange(mQueue, {}));
    } else if (mLost > 0) {
      reportLoss();
    } else if (mState != State::kThread) {
      break;
    } else if (mLimit.isPending()) {
      if (!mToWrite.waitUntil(mMutex, mLimit.periodEnd())) mLimit.report();
    } else {
      mToWrite.wait(mMutex);
    }
  }
  if (mState == State::kStopping) mState = State::kDirect;
  mProgress.notifyOne();
}

void LogSink::writeOut(const std::string& lines) {
  for (std::string_view rest(lines); !rest.empty();) {
    // Whole lines, as many as a pipe takes with nothing of others in between.
    std::size_t end = rest.rfind('\n', PIPE_BUF - 1);
    if (end == rest.npos) end = rest.find('\n');
    mMutex.unlock();
    writePiece(rest.substr(0, end + 1));
    mMutex.lock();
    rest.remove_prefix(end + 1);
    ++mPieces;
    mProgress.notifyOne();
  }
}

void LogSink::writePiece(std::string_view rest) const noexcept {
  while (!rest.empty()) {
    const ssize_t count = ::write(mFd, rest.data(), rest.size());
    if (count > 0) {
      rest.remove_prefix(static_cast<std::size_t>(count));
    } else if (count < 0 && errno == EAGAIN) {  // somebody made it non-blocking
      isReady(mFd, 1s);
    } else if (count == 0 || errno != EINTR) {
      return;
    }
  }
}

namespace {

std::shared_ptr<LogSink>& sink() {
  static auto* const only = new std::shared_ptr<LogSink>(std::make_shared<LogSink>(STDERR_FILENO));
  return *only;
}

}  // namespace

Log::Log() { spdlog::set_default_logger(std::make_shared<spdlog::logger>("udisk-host", sink())); }
Log::~Log() { sink()->stopThread(); }

void startLogThread() { sink()->startThread(); }
void printFailure(const std::string& text) { sink()->print("udisk-host: " + text + "\n"); }

}  // namespace zor::host
