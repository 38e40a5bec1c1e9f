#include "host/client_connection.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "protocol/codec.h"
#include "protocol/commands.h"
#include "protocol/records.h"

namespace zor::host {
namespace {

// Reading waits for the announcement: only then does the driver know its mount
// point. A disk that has to spin up first takes some seconds.
constexpr auto kAnnouncementTimeout = std::chrono::seconds(60);

// Closes before it destroys, however the scope is left.
struct CloseDriver {
  void operator()(ZorDriver* driver) const noexcept {
    try {
      driver->Close(0);
    } catch (const std::exception& error) {
      spdlog::error("closing the driver failed: {}", error.what());
    }
    delete driver;
  }
};

}  // namespace

ClientConnection::Metrics& ClientConnection::Metrics::operator+=(const Metrics& other) noexcept {
  packets += other.packets;
  received += other.received;
  sent += other.sent;
  waitingPackets += other.waitingPackets;
  waitingBytes += other.waitingBytes;
  return *this;
}

ClientConnection::Metrics ClientConnection::metrics() const noexcept {
  return {mReceiver.packets(), mStream.receivedBytes(), mStream.sentBytes(),
          mStream.budget().packets(), mStream.budget().total()};
}

ClientConnection::~ClientConnection() {
  end();
  if (mThread.joinable()) mThread.join();
}

void ClientConnection::start(std::function<void()> finished) {
  mThread = std::thread([this, done = std::move(finished)] {
    run();
    done();
  });
}

void ClientConnection::run() noexcept {
  try {
    if (!mDisk.isThere()) {  // which says so once
      mStream.end();
      return;
    }
    const std::unique_ptr<ZorDriver, CloseDriver> driver(mModule.open(mDevice, "").release());
    if (driver) {
      try {
        serve(*driver);
      } catch (...) {
        mStream.end();  // or closing the driver could wait for a client that does not read
        throw;
      }
    } else {
      spdlog::error("the module could not open a driver; the client is sent away");
    }
    mStream.end();
  } catch (const std::exception& error) {
    mStream.end();
    spdlog::error("the connection failed: {}", error.what());
  }
}

void ClientConnection::serve(ZorDriver& driver) {
  if (!mStream.waitAnnounced(kAnnouncementTimeout)) {
    if (!mStream.ended()) spdlog::error("the driver does not announce its disk; giving it up");
    return;
  }
  if (mDisk.isConfined() || servesTheDisk(driver)) {
    mReceiver.run(driver);
    if (mStream.budget().waitIdle()) mStream.flush();
  } else if (!mStream.ended()) {
    mStream.end();
    spdlog::warn("refused a client (process {}): the driver met something else than the disk",
                 mClient.process);
  }
}

// The driver opens the directory by its path, so somebody could have put another one there for
// just that moment. It remembers what it met: what it says of the root now holds for good.
bool ClientConnection::servesTheDisk(ZorDriver& driver) {
  wire::FileAttrRecord record{};
  record.pathLength = 1;
  const auto fixed = wire::encoded(record);
  auto question = std::make_unique<ZorPacket>(kPacketHeaderSize + fixed.size() + 1);
  question->SetHeader(mDevice.GetDevId(), code(wire::Command::kGetFileAttr), 0);
  if (question->AppendPayload(fixed.data(), fixed.size()) != 0 ||
      question->AppendPayload("/", 1) != 0) {
    return false;
  }
  mStream.divertNext();
  driver.onEvent(std::move(question), 0);
  const std::unique_ptr<ZorPacket> answer = mStream.waitDiverted(kAnnouncementTimeout);
  if (!answer) return false;
  wire::Cursor cursor(
      wire::Bytes(reinterpret_cast<const std::byte*>(answer->mBuffer->data),
                  std::min<std::size_t>(answer->GetLength(), answer->mBuffer->capacity)));
  std::uint64_t device = 0, inode = 0;
  cursor.take(kPacketHeaderSize + fixed.size() + 1);
  return cursor.get(device) && cursor.get(inode) && mDisk.is(device, inode);
}

}  // namespace zor::host
