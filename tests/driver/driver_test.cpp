// The driver's life: opened, fed with events from other threads, closed; and
// the module around it as a loader meets it.
#include <dlfcn.h>

#include <atomic>
#include <thread>

#include "disk_fixture.h"
#include "service/command.h"
#include "udisk/udisk_driver.h"
#include "zor_wait_listener.h"

namespace zor {

struct UDiskDriverPeek {
  static bool isStopping(UDiskDriver& driver) { return driver.mStop; }
};

}  // namespace zor

namespace zor::test {
namespace {

class DriverTest : public DiskTest {
 protected:
  DriverTest() {
    device.id = 200;  // negative in the signed bytes of some calls
    device.params = R"({"letter": ")" + base + R"(/", "label": "disk", "name": "USB"})";
  }
  /// Opened, and announced to the client.
  std::shared_ptr<UDiskOperator> open() { return open(driver, device); }
  std::shared_ptr<UDiskOperator> open(UDiskDriver& opened, RecordingDevice& own) {
    own.id = device.id;
    own.params = device.params;
    EXPECT_EQ(opened.Init(), 0);
    EXPECT_TRUE(own.waitForSent(2));
    return std::dynamic_pointer_cast<UDiskOperator>(opened.GetDriverObj());
  }
  int send(int cmd, const std::string& payload, int devId = 200) {
    return driver.onEvent(requestOf(cmd, payload, devId), 0);
  }
  int sendFlush(const std::string& path) { return driver.onEvent(flushOf(path), 0); }
  static std::unique_ptr<ZorPacket> flushOf(const std::string& path) {
    return requestOf(119, le(path.size(), 4) + le(0, 4) + path, 200);
  }

  UDiskDriver driver{&device, "policy"};
};

TEST_F(DriverTest, AnnouncesServesInOrderAndCloses) {
  auto served = open();
  ASSERT_TRUE(served);
  EXPECT_EQ(served->GetLocalMountPoint(), disk);
  EXPECT_EQ(served->GetDevId(), 200);
  for (const char* path : {"/1", "/2", "/3"}) EXPECT_EQ(sendFlush(path), 0);
  ASSERT_TRUE(device.waitForSent(5));
  const auto sent = device.sent();
  EXPECT_EQ(hexOf(sent[0]), hexTyped("27c87a00 0a1a0000 10000000 00000000"));
  EXPECT_EQ(hexOf(sent[1]), hexTyped("27c86400 d2040000 17000000 00000000 0300 'USB' 00 00"));
  EXPECT_EQ(sent[2].substr(24) + sent[3].substr(24) + sent[4].substr(24), "/1/2/3");

  EXPECT_EQ(send(119, wire("02000000 00000000 '/x'"), 201), -1);
  EXPECT_EQ(log.errors("this packet is other device myDevId: 200, DevId: 201"), 1U);
  EXPECT_EQ(driver.OnEvent(static_cast<signed char>(200), 0, nullptr, 0), 0);
  EXPECT_EQ(driver.OnEvent(9, 0, nullptr, 0), -1);
  EXPECT_EQ(log.errors("this msg is invalid"), 1U);
  driver.onBusEvent(requestOf(513, le(2000, 4), 77));  // events are everybody's
  EXPECT_EQ(Peek::bandwidth(*served), 2000U);

  EXPECT_EQ(driver.Close(0), 0);
  EXPECT_EQ(driver.GetDriverObj(), nullptr);
  EXPECT_EQ(served.use_count(), 1);
  std::uint16_t code = 0;
  EXPECT_EQ(driver.onControl(nullptr, &code), -1);
  EXPECT_EQ(std::to_string(code) + driver.GetDriverType(), "5382RawDrv");
  // Closed, it takes everything and does nothing.
  driver.onPolicyChange(std::string(1000, 'q'));
  log.clear();
  EXPECT_EQ(driver.Close(0), 0);
  EXPECT_EQ(log.all().size(), 2U);
  EXPECT_EQ(sendFlush("/late"), 0);
  EXPECT_EQ(driver.onBusEvent(requestOf(513, le(3000, 4))), 0);
  EXPECT_EQ(device.sent().size(), 5U);
  EXPECT_EQ(device.traces(), (std::vector<std::string>{
                                 "LOCAL_UDISK_DRIVER_OPEN success - udisk driver open success",
                                 "LOCAL_UDISK_READ_BW_INFO success - Udisk read bwinfo:2000",
                                 "LOCAL_UDISK_DRIVER_CLOSE success - udisk driver close success"}));
}

// One request is brought, the next ones are only there for who asks, or waits.
TEST_F(DriverTest, AsksADeviceThatCanBeAsked) {
  struct AskedDevice : RecordingDevice, RequestSource {
    void poll() noexcept override { give(1); }
    bool await() noexcept override {
      give(2);
      return ++awaited < 5;
    }
    void give(int number) noexcept {
      if (given != number) return;
      ++given;
      driver->onEvent(flushOf("/" + std::to_string(number)), 0);
    }
    ZorDriver* driver = nullptr;
    int given = 1, awaited = 0;
  } asked;
  const RequestSourceOffer offer(asked, asked);
  UDiskDriver askingDriver(&asked, "");
  asked.driver = &askingDriver;
  open(askingDriver, asked);
  askingDriver.onEvent(flushOf("/0"), 0);
  ASSERT_TRUE(asked.waitForSent(5));
  EXPECT_EQ(asked.sent()[4].substr(24), "/2");
  askingDriver.Close(0);
}

// A remote that does not read can make every reply wait.
TEST_F(DriverTest, NothingOfTheDiskIsOpenWhileAReplyWaits) {
  struct WaitingDevice : RecordingDevice {
    int SendPacket(std::unique_ptr<ZorPacket> packet, int timeoutMs) override {
      notifyAboutToWait();
      for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry, gone).string().find(disk) == 0) ++open;
      }
      return RecordingDevice::SendPacket(std::move(packet), timeoutMs);
    }
    std::string disk;
    std::atomic<int> open{0};
  } waiting;
  waiting.disk = disk;
  UDiskDriver waitingDriver(&waiting, nullptr);
  open(waitingDriver, waiting);  // from now on one thread serves and sends
  for (int round = 0; round < 20; ++round) {
    for (const Probe& probe : kProbes) {
      waitingDriver.onEvent(requestOf(probe.cmd, probe.request("/sub/../" + probe.leaf()), 200), 0);
    }
  }
  EXPECT_TRUE(waiting.waitForSent(2 + 20 * std::size(kProbes)));
  waitingDriver.Close(0);
  EXPECT_EQ(waiting.open, 0);
}

TEST_F(DriverTest, WhatIsQueuedAtTheStopIsDiscardedUnanswered) {
  struct HeldDevice : RecordingDevice {
    int SendPacket(std::unique_ptr<ZorPacket> packet, int timeoutMs) override {
      if (packet->GetCmd() == 119) {
        serving = true;
        while (!UDiskDriverPeek::isStopping(*driver)) std::this_thread::yield();
      }
      return RecordingDevice::SendPacket(std::move(packet), timeoutMs);
    }
    UDiskDriver* driver = nullptr;
    std::atomic<bool> serving{false};
  } held;
  UDiskDriver heldDriver(&held, "");
  held.driver = &heldDriver;
  open(heldDriver, held);
  for (int i = 0; i < 3; ++i) {
    heldDriver.onEvent(flushOf("/x"), 0);
    while (!held.serving) std::this_thread::yield();
  }
  heldDriver.Close(0);
  EXPECT_EQ(held.sent().size(), 3U);  // two announcements, and the one that was being served
}

// What is open for one request of a batch must be right for the next one, and
// must not be closed while it is in use.
TEST_F(DriverTest, RequestsThatArriveTogetherSeeWhatTheOthersDid) {
  auto served = open();
  fs::create_directory(disk + "/other");
  const auto attributes = [](const std::string& path) {
    return requestOf(102, le(path.size(), 2) + le(0, 2) + path, 200);
  };
  const auto rename = [](const std::string& from, const std::string& to) {
    return requestOf(118, le(0, 4) + le(from.size(), 2) + le(to.size(), 2) + from + to, 200);
  };
  {
    const UDiskOperator::RequestBatch batch(*served);
    served->EventHandle(attributes("/sub/deep"));
    served->EventHandle(attributes("/empty/none"));
    served->EventHandle(rename("/sub/deep", "/other/deep"));
    served->EventHandle(attributes("/other/deep"));
    served->EventHandle(rename("/other", "/moved"));
    served->EventHandle(attributes("/other/deep"));
    served->EventHandle(attributes("/moved/deep"));
  }
  EXPECT_TRUE(fs::is_directory(disk + "/moved/deep"));
  std::string found;
  for (const std::string& reply : device.sent()) {
    if (reply[2] == 102) found += le(120, 2) == reply.substr(18, 2) ? '+' : '-';
  }
  EXPECT_EQ(found, "+-+-+");
  driver.Close(0);
}

// A stream opens its file once, but only for as long as the path leads to it.
TEST_F(DriverTest, AStreamGoesOnInWhatANeighbourPutInItsPlace) {
  auto served = open();
  const auto read = [&] { served->EventHandle(requestOf(105, readOf("/s", 9), 200)); };
  const auto write = [&](const std::string& data) {
    const std::string record =
        le(0, 8) + le(data.size(), 4) + le(0, 4) + le(1, 4) + le(2, 2) + le(0, 2);
    served->EventHandle(requestOf(106, record + "/s" + data, 200));
  };
  put(disk + "/s", "one");
  {
    const UDiskOperator::RequestBatch batch(*served);
    for (int i = 0; i < 3; ++i) read(), write("ONE");
    put(disk + "/t", "another");
    fs::rename(disk + "/t", disk + "/s");
    for (int i = 0; i < 3; ++i) read(), write("ANO");
    fs::remove(disk + "/s");
    read();
  }
  std::string found;
  for (const std::string& reply : device.sent()) {
    if (reply[2] == 105) found += reply.substr(42) + " ";
  }
  EXPECT_EQ(found, "one ONE ONE another ANOther ANOther  ");
  driver.Close(0);
}

TEST_F(DriverTest, ClosedUnderLoadItDestroysEveryRequest) {
  struct Counter final : PacketBudget {
    void ReleasePacket(std::size_t) noexcept override { --packets; }
    std::atomic<int> packets{0};
  } counter;
  open();
  std::atomic<bool> ending{false};
  std::thread feeder([&] {
    while (!ending) {
      auto packet = flushOf("/x");
      packet->mBuffer->budget = &counter;
      ++counter.packets;
      driver.onEvent(std::move(packet), 0);
    }
  });
  EXPECT_TRUE(device.waitForSent(50));
  driver.Close(0);
  ending = true;
  feeder.join();
  EXPECT_EQ(counter.packets, 0);
}

TEST_F(DriverTest, ARequestOfManyStepsEndsWithItsDriver) {
  open();
  std::string records = le(30000, 4);
  for (int i = 0; i < 30000; ++i) records += readOf("/spare", 0);
  send(123, records);
  while (!log.has("small_file_read num_records")) std::this_thread::yield();
  EXPECT_EQ(driver.Close(0), 0);
  EXPECT_EQ(device.sent().size(), 2U);  // the announcements
}

TEST_F(DriverTest, EventsFromManyThreadsAreServedInEachOnesOrder) {
  const auto served = open();
  std::vector<std::thread> threads;
  for (const char name : {'a', 'b', 'c'}) {
    threads.emplace_back([this, name] {
      for (int i = 1000; i < 1200; ++i) sendFlush(name + std::to_string(i));
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < 200; ++i) {
      driver.onBusEvent(requestOf(513, le(0, 4)));
      served->GetRemoteMountPoint();
      served->SetRootPath((base + "/").data(), std::string("disk").data());
    }
  });
  for (int i = 0; i < 50; ++i) {
    send(200, wire("0300 0200 'E:' 'USB'"));
    send(101, wire("0300 'USB'"));
    send(113, wire("02000000 00000000 '/x'"));
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(device.waitForSent(2 + 3 * 200 + 2 * 50));
  std::map<char, int> next = {{'a', 1000}, {'b', 1000}, {'c', 1000}};
  for (const std::string& sent : device.sent()) {
    if (sent[2] != 119) continue;
    EXPECT_EQ(sent.substr(25), std::to_string(next[sent[24]]++));
  }
  driver.Close(0);
}

TEST_F(DriverTest, TheModuleShowsItsDescriptorAndNothingElse) {
  void* module = ::dlopen(UDISK_MODULE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << ::dlerror();
  auto* descriptor = static_cast<char*>(::dlsym(module, "ZOR_DRV_MODULE"));
  ASSERT_NE(descriptor, nullptr);
  EXPECT_EQ(hexOf({descriptor + 8, 16}), hexTyped("0000000000000000 0200 ffff ffff 0000"));
  const char* name = nullptr;
  std::memcpy(&name, descriptor + 24, sizeof name);
  EXPECT_STREQ(name, "udisk-redir");
  const CommandResult symbols = runCommand({"nm", "-D", "--defined-only", UDISK_MODULE});
  if (!symbols.started) GTEST_SKIP() << "nm is not installed";
  EXPECT_EQ(symbols.output.substr(symbols.output.find(' ')), " D ZOR_DRV_MODULE\n");
}

}  // namespace
}  // namespace zor::test
