// Which thread reads what a client sends: this thread plays a driver's data-event thread.
#include "host/io/receiver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "driver/wire_text.h"
#include "support/host_packets.h"
#include "support/process.h"

namespace zor::host {
namespace {

using namespace std::chrono_literals;
using test::eventually;
using test::le;
using zor::client::test::sendBytes;
using zor::client::test::socketPair;

std::string packetOf(unsigned cmd, std::uint32_t id, std::size_t payload = 0) {
  return "\x27\1" + le(cmd, 2) + le(id, 4) + le(16 + payload, 4) + le(0, 4) +
         std::string(payload, 'x');
}

class Intake final : public ZorRawDriver {
 public:
  int onEvent(std::unique_ptr<ZorPacket> packet, int) override {
    const std::lock_guard lock(mMutex);
    add(*packet);
    if (keeps) mKept.push_back(std::move(packet));
    return 0;
  }
  int onBusEvent(std::shared_ptr<ZorPacket> packet) override {
    if (packet->GetRequestId() == kRefused) throw std::runtime_error("refused");
    return add(*packet);
  }
  int onPolicyChange(const std::string&) override { return 0; }
  int Close(signed char) override { return 0; }

  void letGo() {
    std::vector<std::unique_ptr<ZorPacket>> kept;
    const std::lock_guard lock(mMutex);
    keeps = false;
    kept.swap(mKept);
  }

  static constexpr std::uint32_t kRefused = 4711;
  std::atomic<bool> keeps{false};
  std::vector<std::uint32_t> ids;  ///< below count
  std::atomic<std::size_t> count{0}, here{0};

 private:
  int add(const ZorPacket& packet) {
    ids.push_back(packet.GetRequestId());
    here += std::this_thread::get_id() == mHome;
    ++count;
    return 0;
  }
  const std::thread::id mHome = std::this_thread::get_id();
  std::mutex mMutex;
  std::vector<std::unique_ptr<ZorPacket>> mKept;  ///< guarded by mMutex
};

/// A client, and a receiver that runs on a thread of its own.
struct Reading {
  Reading() {
    std::tie(mNear, client) = socketPair();
    mStream.emplace(std::move(mNear), mShared);
    receiver.emplace(*mStream);
    mThread = std::thread([this] {
      try {
        receiver->run(intake);
      } catch (const std::exception& error) {
        failure = error.what();
      }
      over = true;
    });
  }
  ~Reading() {
    mStream->end();
    mThread.join();
  }

  void end() { mStream->end(); }
  void send(const std::string& bytes) const { sendBytes(client.get(), bytes); }
  bool arrived(std::size_t count) const {
    return eventually([&] { return intake.count == count; });
  }
  /// Sends one request after the other and asks for each until this thread has the reader role.
  void takeOver() {
    const auto limit = std::chrono::steady_clock::now() + 20s;
    for (const std::size_t before = intake.here; intake.here == before;) {
      ASSERT_LT(std::chrono::steady_clock::now(), limit) << "never handed off";
      const std::size_t next = intake.count + 1;
      send(packetOf(119, 0));
      while (intake.count < next) receiver->poll();
    }
  }

  UniqueFd client;
  Intake intake;
  std::string failure;  ///< once over
  std::atomic<bool> over{false};
  std::optional<Receiver> receiver;

 private:
  UniqueFd mNear;
  SharedBudget mShared;
  std::optional<ClientStream> mStream;
  std::thread mThread;
};

TEST(Receiver, EveryPacketArrivesOnceAndInOrderWhoeverReads) {
  Reading reading;
  const Intake& intake = reading.intake;
  constexpr std::uint32_t kCount = 3000;
  std::thread sender([&] {
    for (std::uint32_t id = 1; id <= kCount; ++id) {
      const std::size_t payload = id % 50 == 0 ? 100000 : id % 7;
      const std::string packet = packetOf(id % 17 == 0 ? 513 : 119, id, payload);
      const std::size_t cut = id % 10 == 0 ? id * 37 % packet.size() : 0;
      reading.send(packet.substr(0, cut));
      // Long enough for the role to be taken back, sometimes.
      if (id % 64 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(id % 3 * 12));
      reading.send(packet.substr(cut));
    }
  });
  while (intake.count < kCount) {
    reading.receiver->poll();
    if (intake.count % 5 == 0) reading.receiver->await();
    if (intake.count % 101 == 0) std::this_thread::sleep_for(10ms);
  }
  sender.join();
  for (std::uint32_t id = 1; id <= kCount; ++id) ASSERT_EQ(intake.ids[id - 1], id);
  EXPECT_GT(intake.here, 0U);
  EXPECT_LT(intake.here, kCount);
}

TEST(Receiver, TheOtherThreadGoesOnWhereThisOneStops) {
  Reading reading;
  const std::string split = packetOf(119, 3, 1000);
  const std::function<void()> stops[] = {
      [&] { reading.send(packetOf(513, 1)); },  // it is busy and does not ask
      [&] {
        while (reading.receiver->await()) {  // until nothing has come for long
        }
        reading.send(packetOf(119, 2));
      },
      [&] {
        reading.send(split.substr(0, 500));
        reading.receiver->await();
        reading.send(split.substr(500));
      },
  };
  for (const auto& stop : stops) {
    reading.takeOver();
    const std::size_t count = reading.intake.count;
    stop();
    EXPECT_TRUE(reading.arrived(count + 1)) << &stop - stops;
  }
}

// Who serves must not wait for memory that only serving gives back.
TEST(Receiver, AFullBudgetIsWaitedForByTheOtherThread) {
  Reading reading;
  reading.intake.keeps = true;
  for (int i = 0; i < 31; ++i) reading.send(packetOf(106, 0, (1U << 20) - 16));
  ASSERT_TRUE(reading.arrived(31));
  reading.takeOver();
  const std::size_t all = reading.intake.count + 130;  // 123 at most have room
  for (std::size_t i = reading.intake.count; i < all; ++i) {
    reading.send(packetOf(106, 0, (8U << 10) - 16));
    reading.receiver->await();
  }
  EXPECT_LT(reading.intake.count, all);
  reading.intake.letGo();
  EXPECT_TRUE(reading.arrived(all));
}

TEST(Receiver, TheEndIsTheEndWhoeverMeetsIt) {
  const struct {
    std::function<void(Reading&)> end;
    std::string failure;
  } table[] = {
      {[](Reading& reading) { ::shutdown(reading.client.get(), SHUT_WR); }, ""},
      {[](Reading& reading) { reading.send("GET / HTTP/1.1"); }, ""},
      {[](Reading& reading) { reading.end(); }, ""},
      {[](Reading& reading) { reading.send(packetOf(513, Intake::kRefused)); }, "refused"},
  };
  for (const auto& row : table) {
    Reading reading;
    reading.takeOver();
    row.end(reading);
    reading.receiver->await();
    EXPECT_TRUE(eventually([&] { return reading.over.load(); })) << &row - table;
    EXPECT_FALSE(reading.receiver->await());
    EXPECT_EQ(reading.failure, row.failure);
  }
}

}  // namespace
}  // namespace zor::host
