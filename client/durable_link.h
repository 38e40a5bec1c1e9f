// A transport that outlives its connections.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "client/connection.h"
#include "client/disk_identity.h"
#include "client/metrics.h"
#include "client/transport.h"
#include "support/mutex.h"

namespace zor::client {

struct DurableLinkOptions {
  /// The link's idle timeout and callbacks are set by the transport.
  ConnectionOptions connection;
  /// How long requests wait for a lost connection to come back, counted from its
  /// loss, and how long a host may be silent before the connection counts as
  /// lost. 1 ms to a day.
  std::chrono::milliseconds timeout{30000};
  /// Takes clauses for people: lost, back, another disk. Called by `open`, and later on a
  /// thread of the transport, beside completions; must not wait for a request.
  std::function<void(const std::string&)> report{};
};

/// Connects again by itself when the connection breaks, and then repeats the requests that
/// the host had not answered, in their order and before newer ones: callers notice only a
/// delay. Commands that are not idempotent (see command_traits.h) fail with
/// ErrorKind::kLinkLost instead; their callers query the disk to find out whether the host
/// carried them out. Such a caller must not have other changes of the same names in flight:
/// these are repeated whether or not the host had already removed or renamed their file.
///
/// A connection that leads to a disk with another name or identity is not used: no request is
/// sent before both were compared. Where a host does not report all of the identity, what it
/// reports is compared. When no connection has come back after the timeout, or a host has been
/// silent for so long, all requests fail with ErrorKind::kLinkLost, newer ones at once, until
/// there is one.
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

  /// The same on all connections, as far as it is known.
  DiskIdentity identity() const;

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

  struct Pending {
    OutgoingRequest request;
    std::optional<OutgoingRequest> fence;
    Completion done;
    bool sent = false;  ///< handed to a link at least once
  };
  using Queue = std::list<Pending>;

  /// The link takes requests and runs completions and tasks; else mThread runs them.
  struct Serving {
    Link* link;
    bool answered;  ///< a loss starts a new time limit
  };
  /// The connection broke, and mThread has not dropped it yet.
  struct Lost {
    bool answered;
  };
  /// There is no connection until the next attempt.
  struct Pausing {
    Clock::time_point until;
  };
  /// The host has to announce its disk.
  struct Greeting {
    Clock::time_point end;
    bool announced = false;
  };
  /// The disk's identity has been asked for.
  struct Identifying {
    Clock::time_point end;
    std::optional<Result<DiskIdentity>> answer{};
  };
  /// The connection broke before it served.
  struct Failed {};
  /// There will be no connection any more.
  struct Ended {};
  using State = std::variant<Greeting, Identifying, Failed, Serving, Lost, Pausing, Ended>;

  enum class Closing { kNo, kGivenUp, kDestroyed };

  explicit DurableLink(DurableLinkOptions options);

  // durable_link.cpp
  Status connectFirst();
  Result<DiskIdentity> awaitIdentity();
  ConnectionOptions connectionOptions();
  void enqueue(OutgoingRequest request, Completion done, std::optional<OutgoingRequest> fence);
  void send(Link& link, Queue::iterator pending) REQUIRES(mMutex);
  void complete(Queue::iterator pending, Result<ReplyPayload> reply);
  void onBroken(const Error& error);
  void noteLoss(const Error& error) REQUIRES(mMutex);
  void close(Closing closing);

  // durable_link_thread.cpp; these may release the mutex in between.
  void run();
  void recover() REQUIRES(mMutex);
  void advance() REQUIRES(mMutex);
  void wait(Clock::time_point until) REQUIRES(mMutex);
  void startAttempt() REQUIRES(mMutex);
  void identify(Clock::time_point end) REQUIRES(mMutex);
  void validateIdentity(const Result<DiskIdentity>& identity) REQUIRES(mMutex);
  void activate() REQUIRES(mMutex);
  void refuse(const std::string& reason) REQUIRES(mMutex);
  void endAttempt() REQUIRES(mMutex);
  void pause() REQUIRES(mMutex);
  void expire() REQUIRES(mMutex);
  void end() REQUIRES(mMutex);
  void dropConnection(State next) REQUIRES(mMutex);
  void runTasks() REQUIRES(mMutex);
  void report(const std::string& clause) REQUIRES(mMutex);

  const DurableLinkOptions mOptions;
  Announcement mAnnouncement;
  std::atomic<bool> mSmallFiles{false};
  Metrics mMetrics;

  mutable Mutex mMutex;  ///< taken before the link's own
  Condition mWork;       ///< mThread has something to do
  State mState GUARDED_BY(mMutex) = Greeting{};
  Closing mClosing GUARDED_BY(mMutex) = Closing::kNo;
  /// When waiting requests fail; none: requests fail at once.
  std::optional<Clock::time_point> mDeadline GUARDED_BY(mMutex);
  DiskIdentity mIdentity GUARDED_BY(mMutex);
  Queue mQueue GUARDED_BY(mMutex);  ///< all without an outcome, in order
  std::size_t mInFlight GUARDED_BY(mMutex) = 0;
  /// For mThread; empty in the state Serving.
  std::vector<std::function<void()>> mTasks GUARDED_BY(mMutex);
  std::string mReason GUARDED_BY(mMutex){"the host closed the connection"};  ///< of the last loss

  // mThread only, and before that whoever opens the link.
  std::unique_ptr<Connection> mConnection;  ///< of every state but Pausing and Ended
  std::chrono::milliseconds mPause{};       ///< before the next attempt
  std::string mRefusal;                     ///< the last that was reported since the loss

  std::thread mThread;  ///< the last member: it uses all the others
};

}  // namespace zor::client
