// A disk whose answers a test can change, and a drive on it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "client/durable_link.h"
#include "drive/drive.h"
#include "protocol/codec.h"
#include "protocol/records.h"
#include "support/served_disk.h"

namespace zor::client::test {

/// Passes requests on, except for those that are to fail.
class AlteringTransport final : public Transport {
 public:
  explicit AlteringTransport(Transport& next) : mNext(next) {}

  /// Called for each request, before it is sent. `names`: its payload as text, which
  /// ends with its paths. True: the disk refuses it.
  std::function<bool(wire::Command command, const std::string& names)> refuses =
      [](wire::Command, const std::string&) { return false; };

  /// Changes answers that are not refused; on the transport's thread.
  std::function<void(wire::Command command, const std::string& names, Buffer& reply)> alters =
      [](wire::Command, const std::string&, Buffer&) {};

  void submit(OutgoingRequest request, Completion done) override {
    const std::string names = textOf(request);
    if (!refuses(request.command, names)) {
      const wire::Command command = request.command;
      return mNext.submit(std::move(request), [this, command, names,
                                               done = std::move(done)](Result<ReplyPayload> reply) {
        if (reply) alters(command, names, *reply);
        done(std::move(reply));
      });
    }
    answer(std::make_shared<Buffer>(refusal(request)), std::move(done));
  }
  void submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) override {
    if (!refuses(request.command, textOf(request))) {
      return mNext.submitFenced(std::move(request), std::move(done), std::move(fence));
    }
    auto listing = wire::DirRecord{};
    wire::Cursor cursor(request.payload.bytes());
    cursor.get(listing);
    const std::string path =
        textOf(request).substr(wire::wireSize<wire::DirRecord>(), listing.pathLength);
    listing.listingLength = listing.entryCount = 0;
    const auto reply = std::make_shared<Buffer>(wire::encoded(listing));
    reply->append(std::as_bytes(std::span(path)));
    answer(reply, std::move(done));
  }
  void post(std::function<void()> task) override { mNext.post(std::move(task)); }

 private:
  /// Something harmless in the request's place keeps the order of the answers.
  void answer(std::shared_ptr<Buffer> reply, Completion done) {
    mNext.submit({wire::Command::kFileFlush, flushOfRoot(), {}},
                 [reply = std::move(reply), done = std::move(done)](Result<ReplyPayload> flushed) {
                   done(flushed ? Result<ReplyPayload>(std::move(*reply)) : std::move(flushed));
                 });
  }

  static std::string textOf(const OutgoingRequest& request) {
    const wire::Bytes bytes = request.payload.bytes();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }

  static Buffer flushOfRoot() {
    wire::HandleRecord record{};
    record.pathLength = 1;
    Buffer payload(wire::encoded(record));
    payload.append(std::as_bytes(std::span("/", 1)));
    return payload;
  }

  /// Most refusals repeat the request, in which the results are 0.
  static Buffer refusal(const OutgoingRequest& request) {
    Buffer reply(request.payload.bytes());
    switch (request.command) {
      case wire::Command::kSetLink:
      case wire::Command::kSetRename:
      case wire::Command::kMakeDir:
        std::fill_n(reply.data(), 4, std::byte{0xff});
        break;
      case wire::Command::kFileRead:
        std::fill_n(reply.data() + 12, 4, std::byte{0});  // what follows
        break;
      case wire::Command::kFileWrite:
        std::fill_n(reply.data() + 8, 4, std::byte{0});  // of the data
        break;
      case wire::Command::kGetStatvfs: {
        reply.data()[4] = std::byte{112};
        const Buffer zeros(std::string(112, '\0'));
        reply.append(zeros.bytes());
        break;
      }
      default:
        break;
    }
    return reply;
  }

  Transport& mNext;
};

class AlteredDisk : public ::testing::Test {
 protected:
  void connect(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    DurableLinkOptions options;
    options.connection.socketPath = mDisk.socket();
    options.timeout = timeout;
    auto link = DurableLink::open(std::move(options));
    ASSERT_TRUE(link) << link.error().message;
    mLink = std::move(*link);
    mTransport.emplace(*mLink);
    DriveOptions drive;
    drive.attributeTimeout = mAttributeTimeout;
    drive.lastingInodes = mLastingInodes;
    mDrive.emplace(*mTransport, std::move(drive));
  }
  ~AlteredDisk() override {
    mDrive.reset();
    mTransport.reset();
    mLink.reset();
  }

  template <class T>
  static int errnoOf(const Outcome<T>& outcome) {
    return outcome ? 0 : outcome.error().value;
  }
  NodeId node(const std::string& name, NodeId directory = kRootNode) {
    const auto entry = mDrive->lookup(directory, name);
    return entry ? entry->node : 0;
  }
  /// As a program sees it: ENOENT is a lookup without a node.
  int lookup(const std::string& name, NodeId directory = kRootNode) {
    const auto entry = mDrive->lookup(directory, name);
    if (!entry) return entry.error().value;
    return entry->node == 0 ? ENOENT : 0;
  }
  int write(OpenFile& file, std::string_view text, std::int64_t offset = 0) {
    return errnoOf(mDrive->write(file, offset, std::as_bytes(std::span(text))));
  }
  std::string read(OpenFile& file) {
    const auto parts = mDrive->read(file, 0, 1 << 20);
    if (!parts) return "errno " + std::to_string(parts.error().value);
    std::string text;
    for (const ReadPart& part : *parts) {
      text.append(reinterpret_cast<const char*>(part.bytes.data()), part.bytes.size());
    }
    return text;
  }

  zor::test::ServedDisk mDisk;
  std::chrono::milliseconds mAttributeTimeout{0};
  bool mLastingInodes = true;
  std::unique_ptr<DurableLink> mLink;
  std::optional<AlteringTransport> mTransport;
  std::optional<Drive> mDrive;
};

}  // namespace zor::client::test
