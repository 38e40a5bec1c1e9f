// A transport that outlives its connections.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "client/connection.h"
#include "client/disk_identity.h"
#include "client/metrics.h"
#include "client/transport.h"

namespace zor::client {

struct DurableLinkOptions {
  /// The link's idle timeout and callbacks are set by the transport.
  ConnectionOptions connection;
  /// How long requests wait for a lost connection to come back, counted from its
  /// loss, and how long a host may be silent before the connection counts as
  /// lost. 1 ms to a day.
  std::chrono::milliseconds timeout{30000};
  /// Takes clauses for people: lost, back, another disk. Called on a thread of
  /// the transport, beside completions; must not wait for a request.
  std::function<void(const std::string&)> report{};
};

/// Connects again by itself when the connection breaks. What the host had not
/// answered is then sent again, in its order and before anything newer, so that
/// callers notice only a delay; except for commands that cannot be repeated (see
/// command_traits.h), which fail with ErrorKind::kLinkLost when the connection
/// breaks, and whose callers look at the disk to find out. Such a caller must
/// not have other changes of the same names in flight: those are repeated
/// whether or not the host had already removed or renamed their file.
///
/// A connection over which another disk is announced, or whose disk is another by
/// its identity, is not used: no request is sent before both were compared. When no connection has
/// come back after the timeout, or a host has been silent for so long, all requests fail with
/// ErrorKind::kLinkLost, newer ones at once, until there is one.
class DurableLink final : public Transport {
 public:
  /// Waits for the first connection; fails at once when there is none, and after
  /// the timeout when the host does not answer.
  static Result<std::unique_ptr<DurableLink>> open(DurableLinkOptions options);

  /// Fails what is in flight, without waiting for the host. Must not be called
  /// from a completion.
  ~DurableLink() override;

  DurableLink(const DurableLink&) = delete;
  DurableLink& operator=(const DurableLink&) = delete;

  /// Of the first connection.
  const Announcement& announcement() const noexcept { return mAnnouncement; }

  /// The same on all connections.
  const DiskIdentity& identity() const noexcept { return mIdentity; }

  /// Whether the host of the last connection serves batches of small files.
  bool servesSmallFiles() const { return mSmallFiles.load(std::memory_order_relaxed); }

  Metrics& metrics() noexcept { return mMetrics; }

  /// Fails everything in flight and all that comes later, without waiting for the host, and
  /// connects no more. From any thread; does not wait for the completions.
  void giveUp();

  void submit(OutgoingRequest request, Completion done) override;
  void submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) override;
  void post(std::function<void()> task) override;

 private:
  using Clock = std::chrono::steady_clock;
  using Lock = std::unique_lock<std::mutex>;

  struct Kept {
    OutgoingRequest request;
    std::optional<OutgoingRequest> fence;
    Completion done;
    bool sent = false;  ///< handed to a link at least once
  };
  using Queue = std::list<Kept>;

  enum class Stage {
    kServing,   ///< the connection is or was in use
    kPausing,   ///< there is no connection
    kGreeting,  ///< the host has to announce its disk
    kProbing,   ///< the disk's identity has been asked for
  };

  explicit DurableLink(DurableLinkOptions options);

  // durable_link.cpp
  Status connectFirst();
  ConnectionOptions connectionOptions();
  void keep(OutgoingRequest request, Completion done, std::optional<OutgoingRequest> fence);
  void handOver(Queue::iterator kept);
  void complete(Queue::iterator kept, Result<ReplyPayload> reply);
  void onBroken(const Error& error);
  void noteLoss(const Error& error);

  // durable_link_thread.cpp
  void run();
  void recover(Lock& lock);
  void advance(Lock& lock);
  void wait(Lock& lock, Clock::time_point until);
  void startAttempt(Lock& lock);
  void probe(Lock& lock);
  void judgeProbe(Lock& lock);
  void activate(Lock& lock);
  void refuse(Lock& lock, const std::string& reason);
  void giveUpAttempt(Lock& lock);
  void pause();
  void expire();
  void end(Lock& lock);
  void dropConnection(Lock& lock);
  void runTasks(Lock& lock);
  void report(Lock& lock, const std::string& clause);

  const DurableLinkOptions mOptions;
  Announcement mAnnouncement;
  DiskIdentity mIdentity;
  std::atomic<bool> mSmallFiles{false};
  Metrics mMetrics;

  std::mutex mMutex;  ///< taken before the link's own
  std::condition_variable mWork;
  bool mStop = false;
  bool mGivenUp = false;
  bool mExpired = false;  ///< requests fail at once
  bool mProgress = true;  ///< a lost connection starts a new time limit
  bool mBroken = false;   ///< mConnection is
  bool mAnnounced = false;
  Queue mQueue;  ///< all without an outcome, in order
  std::size_t mInFlight = 0;
  std::vector<std::function<void()>> mTasks;  ///< for mThread; empty while mLink is set
  Link* mLink = nullptr;  ///< takes requests and runs completions; else mThread runs them
  Clock::time_point mLostAt;
  std::string mReason{"the host closed the connection"};  ///< of the last loss
  std::string mRefusal;                                   ///< the last that was reported since

  // mThread only.
  Stage mStage = Stage::kServing;
  Clock::time_point mNextAttempt;
  Clock::time_point mAttemptEnd;
  std::chrono::milliseconds mPause{};
  std::optional<Result<DiskIdentity>> mProbe;  ///< with mMutex held
  std::unique_ptr<Connection> mConnection;
  bool mEnded = false;  ///< there will be no connection any more

  std::thread mThread;  ///< the last member: it uses all the others
};

}  // namespace zor::client
