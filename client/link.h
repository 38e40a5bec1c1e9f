// One connection to a host.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/packet.h"
#include "client/transport.h"
#include "support/mutex.h"
#include "support/unique_fd.h"

namespace zor::client {

/// How the host introduced the disk.
struct Announcement {
  std::uint8_t devId = 0;
  std::string name;
  bool readOnly = false;
};

struct LinkOptions {
  /// The drive that is reported to the host in answer to its announcement.
  std::string driveName = "U:";
  /// The link counts as broken when requests wait and nothing of an answer to one of them
  /// has arrived for this long; of a long answer, a sixteenth or 64 KiB counts.
  std::chrono::milliseconds idleTimeout{60000};
  /// Reported when the host closes the connection before it announces a disk.
  std::string whyTurnedAway = "it serves as many clients as it may";
  /// Called once, on the link's thread, when the disk has been announced.
  std::function<void()> onAnnounced{};
  /// Called once, on the link's thread, after everything in flight has failed.
  std::function<void(const Error&)> onBroken{};
};

/// A transport over a connected stream socket, with one thread that reads,
/// writes what could not be written at once, and runs completions. Once broken
/// it stays broken: what is in flight and what comes later fails with the
/// reason.
class Link final : public Transport {
 public:
  Link(UniqueFd socket, LinkOptions options);

  /// Fails what is in flight and waits for the link's thread. Must not be
  /// called on that thread.
  ~Link() override;

  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  /// Waits until the host has announced the disk; requests that are submitted
  /// before that fail.
  Result<Announcement> waitForAnnouncement(std::chrono::milliseconds limit);

  /// Whether the host has announced that it serves batches of small files.
  bool servesSmallFiles() const;

  /// Whether the link broke because nothing arrived for the idle timeout. To be
  /// asked from `onBroken` on.
  bool wentSilent() const;

  /// Whether the host closed the connection before it announced a disk.
  bool turnedAway() const;

  void submit(OutgoingRequest request, Completion done) override;
  void submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) override;
  void post(std::function<void()> task) override;

  /// Sends a packet that has no answer; lost without notice on a broken link.
  void notify(OutgoingRequest request);

 private:
  using Clock = std::chrono::steady_clock;

  struct Pending {
    std::uint32_t id = 0;
    wire::Command command{};
    Completion done;  ///< null for a fence
  };

  struct Outgoing {
    std::array<std::byte, kPacketHeaderSize> header{};
    Buffer payload;
    std::shared_ptr<const Buffer> data;
    std::size_t dataSize() const { return data ? data->size() : 0; }
    std::size_t size() const { return header.size() + payload.size() + dataSize(); }
  };

  static Error lost(std::string message) { return {ErrorKind::kLinkLost, std::move(message)}; }
  static std::string seconds(std::chrono::milliseconds time);

  // link.cpp
  std::uint32_t enqueue(OutgoingRequest request) REQUIRES(mMutex);
  void enqueuePending(OutgoingRequest request, Completion done) REQUIRES(mMutex);
  std::deque<Pending>::iterator requestOf(const PacketHeader& header) REQUIRES(mMutex);
  bool refuse(Completion& done) REQUIRES(mMutex);
  void flush() REQUIRES(mMutex);
  void wake();

  // link_thread.cpp, on the link's thread.
  void run();
  bool waitForEvents();
  void receive(int socket);
  void limitPartial();
  void dispatch(const PacketHeader& header, Buffer payload);
  void answerAnnouncement(const PacketHeader& header, const Buffer& payload);
  void complete(const PacketHeader& header, Buffer payload);
  void breakLink(Error error);
  bool runTasks();

  const LinkOptions mOptions;
  UniqueFd mWakeup;
  // The link's thread only.
  PacketReader mReader;
  std::optional<std::size_t> mCounted;  ///< bytes of the partial answer that have renewed the limit
  bool mTooLong = false;                ///< the partial packet is an answer that is not kept

  mutable Mutex mMutex;
  Condition mAnnounced;  ///< or broken
  UniqueFd mSocket GUARDED_BY(mMutex);
  std::optional<Announcement> mAnnouncement GUARDED_BY(mMutex);
  std::optional<Error> mBroken GUARDED_BY(mMutex);
  bool mSmallFiles GUARDED_BY(mMutex) = false;
  bool mSilent GUARDED_BY(mMutex) = false;
  bool mTurnedAway GUARDED_BY(mMutex) = false;
  bool mStop GUARDED_BY(mMutex) = false;
  bool mSendFailed GUARDED_BY(mMutex) = false;
  /// The link's thread waits until more can be written.
  bool mWriting GUARDED_BY(mMutex) = false;
  std::uint32_t mLastId GUARDED_BY(mMutex) = 0;
  /// In the order in which the host serves them.
  std::deque<Pending> mPending GUARDED_BY(mMutex);
  std::deque<Outgoing> mOutgoing GUARDED_BY(mMutex);
  /// Bytes of mOutgoing.front() that are on their way.
  std::size_t mSent GUARDED_BY(mMutex) = 0;
  std::vector<std::function<void()>> mTasks GUARDED_BY(mMutex);
  /// Or when a request began to wait, if that is later.
  Clock::time_point mLastAnswer GUARDED_BY(mMutex);

  std::thread mThread;  ///< the last member: it uses all the others
};

}  // namespace zor::client
