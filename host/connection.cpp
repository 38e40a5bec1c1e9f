#include "connection.h"

#include <spdlog/spdlog.h>

#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

#include "protocol/commands.h"
#include "signals_blocked.h"

namespace zor::host {
namespace {

// Reading waits for the announcement: only then does the driver know its mount
// point. A disk that has to spin up first takes some seconds.
constexpr auto kAnnouncementPatience = std::chrono::seconds(60);

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

Connection::~Connection() {
  end();
  if (mThread.joinable()) mThread.join();
}

void Connection::start(std::function<void()> finished) {
  // On a driver's thread the signals that end the host would only interrupt file
  // operations. New threads inherit the mask.
  const SignalsBlocked blocked;
  mThread = std::thread([this, done = std::move(finished)] {
    run();
    done();
  });
}

void Connection::run() noexcept {
  try {
    const std::unique_ptr<ZorDriver, CloseDriver> driver(mModule.open(mDevice, "").release());
    if (driver) {
      try {
        serve(*driver);
      } catch (...) {
        mLink.end();  // or closing the driver could wait for a remote that does not read
        throw;
      }
    } else {
      spdlog::error("the module could not open a driver; the remote is sent away");
    }
    mLink.end();
  } catch (const std::exception& error) {
    mLink.end();
    spdlog::error("the connection failed: {}", error.what());
  }
}

void Connection::serve(ZorDriver& driver) {
  if (!mLink.waitAnnounced(kAnnouncementPatience)) {
    if (!mLink.ended()) spdlog::error("the driver does not announce its disk; giving it up");
    return;
  }
  receiveAll(driver);
  if (mLink.budget().waitIdle()) mLink.drain();
}

void Connection::receiveAll(ZorDriver& driver) {
  FrameReader frames(mLink.budget());
  while (deliver(driver, frames)) {
    const ssize_t received = mLink.receive(frames.space());
    if (received > 0) {
      frames.commit(static_cast<std::size_t>(received));
      continue;
    }
    if (received < 0) {
      spdlog::error("receiving failed: {}", std::strerror(static_cast<int>(-received)));
    } else if (mLink.ended()) {
      spdlog::info("the connection to the remote has ended");
    } else {
      spdlog::info("the remote left{}", frames.insidePacket() ? " in the middle of a packet" : "");
    }
    return;
  }
}

// Hands over every packet that is there whole. False when the stream is over.
bool Connection::deliver(ZorDriver& driver, FrameReader& frames) {
  using Status = FrameReader::Status;
  for (std::unique_ptr<ZorPacket> packet;;) {
    const Status status = frames.next(packet);
    switch (status) {
      case Status::kPacket:
        if (packet->GetCmd() >= wire::kFirstBusEvent) {
          driver.onBusEvent(std::move(packet));
        } else {
          driver.onEvent(std::move(packet), 0);
        }
        continue;
      case Status::kMore:
        return true;
      case Status::kBadMagic:
        spdlog::warn("ended the connection: a packet began with {:#04x}", frames.header().magic);
        break;
      case Status::kBadLength:
        spdlog::warn("ended the connection: a packet declared a length of {} bytes",
                     frames.header().length);
        break;
      case Status::kNoMemory:
        spdlog::error("ended the connection: no memory for a packet of {} bytes",
                      frames.header().length);
        break;
      case Status::kStopped:
        spdlog::info("the connection to the remote has ended");
        break;
    }
    mLink.end();
    return false;
  }
}

}  // namespace zor::host
