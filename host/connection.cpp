#include "connection.h"

#include <spdlog/spdlog.h>

#include <chrono>
#include <exception>
#include <utility>

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
  mReception.run(driver);
  if (mLink.budget().waitIdle()) mLink.drain();
}

}  // namespace zor::host
