// The module as it is built, in a framework that has only what the module may need of it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "device.h"
#include "driver/wire_text.h"
#include "zor_driver.h"

namespace zor::test {
namespace {

/// A packet whose buffer ends behind `capacity`.
std::unique_ptr<ZorPacket> foreignPacket(int cmd, const std::string& payload) {
  const std::string bytes = wire("2709") + le(static_cast<unsigned>(cmd), 2) + le(7, 4) +
                            le(16 + payload.size(), 4) + le(0, 4) + payload;
  const std::uint64_t capacity = bytes.size();
  auto* data = static_cast<std::uint8_t*>(std::malloc(bytes.size()));
  std::memcpy(data, bytes.data(), bytes.size());
  void* buffer = std::memset(::operator new(sizeof(PacketBuffer)), 0xee, sizeof(PacketBuffer));
  std::memcpy(buffer, &data, sizeof data);
  std::memcpy(static_cast<char*>(buffer) + sizeof data, &capacity, sizeof capacity);
  auto* packet = new (::operator new(sizeof(ZorPacket))) ZorPacket(0);
  std::free(packet->mBuffer->data);
  ::operator delete(packet->mBuffer.release());
  packet->mHeader = reinterpret_cast<PacketHeader*>(data);
  packet->mBuffer.reset(static_cast<PacketBuffer*>(buffer));
  return std::unique_ptr<ZorPacket>(packet);
}

TEST(ForeignFramework, TheModuleServesInItAndNeedsNothingElse) {
  std::string directory = testing::TempDir() + "udisk-foreign-XXXXXX";
  ASSERT_NE(::mkdtemp(directory.data()), nullptr);
  std::ofstream(directory + "/file") << "contents";
  // With more needed of the framework than it has here, this fails.
  void* handle = ::dlopen(UDISK_MODULE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << ::dlerror();
  auto* module = static_cast<ZorDriverModule*>(::dlsym(handle, kDriverModuleSymbol));
  ASSERT_NE(module, nullptr);

  ForeignDevice device(R"({"letter": ")" + directory + R"(", "label": "", "name": "USB"})");
  ZorDriver* driver = module->open(&device, "");
  ASSERT_NE(driver, nullptr);
  device.waitForSent(2);
  driver->onEvent(foreignPacket(105, le(0, 12) + le(8, 4) + le(5, 4) + le(0, 4) + "/file"), 0);
  driver->onBusEvent(foreignPacket(513, le(1000, 4)));
  driver->onEvent(foreignPacket(117, le(5, 2) + le(0, 2) + "/file"), 0);
  const auto sent = device.waitForSent(4);
  ASSERT_EQ(sent.size(), 4U);
  EXPECT_EQ(sent[2].substr(40), "/filecontents");
  EXPECT_EQ(hexOf(sent[3].substr(16)), hexTyped("0500 0000 '/file'"));
  EXPECT_EQ(driver->GetDriverType(), "RawDrv");
  EXPECT_NE(driver->GetDriverObj(), nullptr);
  driver->Close(0);
  delete driver;
  EXPECT_EQ(device.traces, 4);  // opened, bandwidth, read, closed
  EXPECT_EQ(std::filesystem::remove_all(directory), 1U);
}

}  // namespace
}  // namespace zor::test
