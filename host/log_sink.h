// The log on standard error, for which nobody who serves ever waits.
#pragma once

#include <spdlog/sinks/sink.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "host/log_limit.h"
#include "support/mutex.h"

namespace zor::host {

/// Lines are queued for a thread that writes them. A line that finds the queue full is
/// left out; how many were is said as soon as there is room. Before the thread is
/// started, and in a process that was forked then, a line is written at once, or left
/// out when the reader takes nothing for a moment.
///
/// Lines of the levels info and above are limited, see LogLimit. One object at most, and
/// it must outlive the process: its thread may be caught in a write for ever.
class LogSink : public spdlog::sinks::sink {
 public:
  explicit LogSink(int fd);

  void startThread();
  /// Writes `text` as it is, before the thread is started or after it ended.
  void print(const std::string& text);
  /// Has the queued lines written for as long as somebody reads them, two seconds at
  /// most. What is logged afterwards is written at once again, or lost if the thread hangs.
  void stopThread() noexcept;

  void log(const spdlog::details::log_msg& line) override;
  void flush() override {}
  void set_pattern(const std::string& pattern) override;
  void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override;

 private:
  enum class State { kDirect, kThread, kStopping, kHanging };

  void put(const spdlog::details::log_msg& line) REQUIRES(mMutex);
  void putNotice(const std::string& text) REQUIRES(mMutex);
  void reportLoss() REQUIRES(mMutex);
  void writeDirectly(std::string_view line) REQUIRES(mMutex);
  void runThread();
  void writeOut(const std::string& lines) REQUIRES(mMutex);
  void writePiece(std::string_view rest) const noexcept;

  const int mFd;
  Mutex mMutex;
  Condition mToWrite, mProgress;
  std::unique_ptr<spdlog::formatter> mFormatter GUARDED_BY(mMutex);
  LogLimit mLimit GUARDED_BY(mMutex);
  State mState GUARDED_BY(mMutex) = State::kDirect;
  std::string mQueue GUARDED_BY(mMutex);
  std::uint64_t mLost GUARDED_BY(mMutex) = 0;
  std::uint64_t mPieces GUARDED_BY(mMutex) = 0;  ///< written by the thread
  bool mTorn GUARDED_BY(mMutex) = false;         ///< the output ends in the middle of a line
  std::thread mThread;
};

/// Makes a LogSink on standard error the default of spdlog, and stops its thread at the end.
class Log {
 public:
  Log();
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
};

/// To be called when no other process is split off any more and the rights are given
/// up, which a thread that is there already would keep.
void startLogThread();

/// Prints on standard error why the program fails. Not while the thread runs.
void printFailure(const std::string& text);

}  // namespace zor::host
