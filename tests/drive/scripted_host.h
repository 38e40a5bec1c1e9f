// A host whose requests a test watches, holds, refuses and alters, and a drive on it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/durable_link.h"
#include "drive/drive.h"
#include "protocol/codec.h"
#include "protocol/records.h"
#include "support/mutex.h"
#include "support/served_disk.h"

namespace zor::client::test {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using wire::Command;

/// In front of a real host. Requests and replies keep their order.
class ScriptedHost final : public Transport {
 public:
  explicit ScriptedHost(Transport& next) : mNext(next) {}

  /// Called for each request before it is sent. `names`: its payload as text, which ends
  /// with its paths. True: the host refuses it.
  std::function<bool(Command command, const std::string& names)> refuses =
      [](Command, const std::string&) { return false; };
  void refuse(Command command) {
    refuses = [command](Command one, const std::string&) { return one == command; };
  }

  /// Changes replies; on the transport's thread.
  std::function<void(Command command, const std::string& names, Buffer& reply)> alters =
      [](Command, const std::string&, Buffer&) {};

  /// Requests of this kind wait until `goOn`.
  void hold(Command command) {
    const MutexLock lock(mMutex);
    mHolding = command;
  }
  void goOn() {
    std::deque<std::function<void()>> held;
    {
      const MutexLock lock(mMutex);
      mHolding = {};
      held.swap(mHeld);
    }
    for (const auto& send : held) send();
  }

  /// Waits until a request of the kind has been made since the last `forget`.
  void await(Command command) {
    const MutexLock lock(mMutex);
    while (countLocked(command, "") == 0) mArrived.wait(mMutex);
  }
  void forget() {
    const MutexLock lock(mMutex);
    mSeen.clear();
  }
  /// How many requests of the kind, whose strings contain `text`, were made.
  std::ptrdiff_t count(Command command, const std::string& text = "") {
    const MutexLock lock(mMutex);
    return countLocked(command, text);
  }
  std::ptrdiff_t countNaming(const std::string& text) {
    const MutexLock lock(mMutex);
    return std::count_if(mSeen.begin(), mSeen.end(), [&](const auto& seen) {
      return seen.second.find(text) != std::string::npos;
    });
  }

  void submit(OutgoingRequest request, Completion done) override {
    send(std::move(request), std::move(done), std::nullopt);
  }
  void submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) override {
    send(std::move(request), std::move(done), std::move(fence));
  }
  void post(std::function<void()> task) override { mNext.post(std::move(task)); }

 private:
  void send(OutgoingRequest request, Completion done, std::optional<OutgoingRequest> fence) {
    const Command command = request.command;
    const std::string names = text(request.payload.bytes());
    const bool refused = refuses(command, names);
    const std::string data = request.data == nullptr ? "" : text(request.data->bytes());
    auto handOver = [this, command, names, refused, request = std::move(request),
                     done = std::move(done), fence = std::move(fence)]() mutable {
      if (refused) return reply(std::make_shared<Buffer>(refusal(request)), std::move(done));
      Completion altering = [this, command, names,
                             done = std::move(done)](Result<ReplyPayload> reply) {
        if (reply) alters(command, names, *reply);
        done(std::move(reply));
      };
      if (fence)
        return mNext.submitFenced(std::move(request), std::move(altering), std::move(*fence));
      mNext.submit(std::move(request), std::move(altering));
    };
    {
      const MutexLock lock(mMutex);
      mSeen.emplace_back(command, names + data);
      mArrived.notifyAll();
      if (mHolding == command) {
        mHeld.emplace_back(
            [send = std::make_shared<decltype(handOver)>(std::move(handOver))] { (*send)(); });
        return;
      }
    }
    handOver();
  }

  /// Something harmless in the request's place keeps the order of the replies.
  void reply(std::shared_ptr<Buffer> reply, Completion done) {
    wire::HandleRecord record{};
    record.pathLength = 1;
    Buffer flush(wire::encoded(record));
    flush.append(std::as_bytes(std::span("/", 1)));
    mNext.submit({Command::kFileFlush, std::move(flush), {}},
                 [reply = std::move(reply), done = std::move(done)](Result<ReplyPayload> flushed) {
                   done(flushed ? Result<ReplyPayload>(std::move(*reply)) : std::move(flushed));
                 });
  }

  static std::string text(wire::Bytes bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }

  /// Most refusals repeat the request, in which the results are 0.
  static Buffer refusal(const OutgoingRequest& request) {
    Buffer reply(request.payload.bytes());
    const auto fill = [&reply](std::ptrdiff_t at, int value) {
      std::fill_n(reply.data() + at, 4, static_cast<std::byte>(value));
    };
    switch (request.command) {
      case Command::kSetLink:
      case Command::kSetRename:
      case Command::kMakeDir:
        fill(0, 0xff);
        break;
      case Command::kFileFsync:
        fill(8, 0xff);
        break;
      case Command::kFileCreate:
      case Command::kFileRead:
        fill(12, request.command == Command::kFileRead ? 0 : 0xff);
        break;
      case Command::kFileWrite:
        fill(8, 0);  // the length of the data
        break;
      case Command::kCheckDir: {
        auto listing = wire::DirRecord{};
        wire::Cursor cursor(request.payload.bytes());
        cursor.get(listing);
        listing.listingLength = listing.entryCount = 0;
        const std::string path = text(cursor.take(listing.pathLength));
        reply = Buffer(wire::encoded(listing));
        reply.append(std::as_bytes(std::span(path)));
        break;
      }
      case Command::kGetStatvfs:
        reply.data()[4] = std::byte{112};
        reply.append(Buffer(std::string(112, '\0')).bytes());
        break;
      default:
        break;
    }
    return reply;
  }

  std::ptrdiff_t countLocked(Command command, const std::string& text) const REQUIRES(mMutex) {
    return std::count_if(mSeen.begin(), mSeen.end(), [&](const auto& seen) {
      return seen.first == command && seen.second.find(text) != std::string::npos;
    });
  }

  Transport& mNext;
  Mutex mMutex;
  Condition mArrived;
  std::vector<std::pair<Command, std::string>> mSeen GUARDED_BY(mMutex);
  std::deque<std::function<void()>> mHeld GUARDED_BY(mMutex);
  Command mHolding GUARDED_BY(mMutex){};
};

/// A drive over a real link to a real host, without the kernel.
class ScriptedDrive : public ::testing::Test {
 protected:
  void connect(DriveOptions options = {.attributeTimeout = 60s},
               std::chrono::milliseconds timeout = 20s) {
    disconnect();
    DurableLinkOptions link;
    link.connection.socketPath = mDisk.socket();
    link.timeout = timeout;
    auto opened = DurableLink::open(std::move(link));
    ASSERT_TRUE(opened) << opened.error().message;
    mLink = std::move(*opened);
    mHost.emplace(*mLink);
    mDrive.emplace(*mHost, std::move(options));
  }
  /// Asks the host for everything.
  void connectUncached(std::chrono::milliseconds timeout = 20s) {
    connect({.attributeTimeout = 0ms}, timeout);
  }
  void disconnect() {
    mDrive.reset();
    mHost.reset();
    mLink.reset();
  }
  ~ScriptedDrive() override { disconnect(); }

  template <class T>
  static int errnoOf(const Outcome<T>& outcome) {
    return outcome ? 0 : outcome.error().value;
  }
  /// 0 when there is none.
  NodeId node(const std::string& name, NodeId directory = kRootNode) {
    const auto entry = mDrive->lookup(directory, name);
    return entry ? entry->node : 0;
  }
  /// 0 or an errno, as those below. ENOENT is a lookup without a node.
  int lookup(const std::string& name, NodeId directory = kRootNode) {
    const auto entry = mDrive->lookup(directory, name);
    return entry && entry->node == 0 ? ENOENT : errnoOf(entry);
  }
  OpenFile& create(const std::string& name, std::uint32_t mode = 0644,
                   NodeId directory = kRootNode) {
    return *mDrive->create(directory, name, mode, O_CREAT | O_RDWR)->open.file;
  }
  OpenFile& open(NodeId file, int flags) { return *mDrive->open(file, flags)->file; }
  /// Opens and closes it.
  int tryOpen(const std::string& name, int flags) {
    const auto opened = mDrive->open(node(name), flags);
    if (opened) mDrive->release(*opened->file);
    return errnoOf(opened);
  }
  int write(OpenFile& file, std::string_view text, std::int64_t offset = 0) {
    return errnoOf(mDrive->write(file, offset, std::as_bytes(std::span(text))));
  }
  int flush(OpenFile& file) { return errnoOf(mDrive->flush(file)); }
  std::string read(OpenFile& file, std::int64_t offset = 0, std::uint32_t size = 1 << 20) {
    const auto parts = mDrive->read(file, offset, size);
    if (!parts) return "errno " + std::to_string(parts.error().value);
    std::string text;
    for (const ReadPart& part : *parts) {
      text.append(reinterpret_cast<const char*>(part.bytes.data()), part.bytes.size());
    }
    return text;
  }

  zor::test::ServedDisk mDisk;
  std::unique_ptr<DurableLink> mLink;
  std::optional<ScriptedHost> mHost;
  std::optional<Drive> mDrive;
};

}  // namespace zor::client::test
