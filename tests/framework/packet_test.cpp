#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "driver/recording_device.h"
#include "driver/wire_text.h"
#include "zor_packet.h"
#include "zor_request_source.h"
#include "zor_wait_listener.h"

namespace zor::test {
namespace {

std::string bytesOf(const ZorPacket& packet) {
  return hexOf({reinterpret_cast<const char*>(packet.mBuffer->data), packet.mBuffer->capacity});
}

std::unique_ptr<ZorPacket> adopted(const std::string& typed) {
  const std::string bytes = wire(typed);
  auto* memory = static_cast<std::uint8_t*>(std::malloc(bytes.size()));
  std::memcpy(memory, bytes.data(), bytes.size());
  auto packet = std::make_unique<ZorPacket>(0);
  EXPECT_EQ(packet->FromBuffer(memory, static_cast<std::uint32_t>(bytes.size()), false), 0);
  EXPECT_EQ(packet->GetPayload(), memory + 16);
  return packet;
}

template <class Call>
std::string printedBy(Call call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

TEST(Packet, AppendingGrowsInStepsAndNeverPastTheBuffer) {
  // The last needs more than one step.
  for (const auto& [capacity, held, piece, capacityAfter] :
       {std::array{0U, 0U, 0U, 16U},
        {20U, 0U, 4U, 20U},
        {16U, 0U, 4U, 0U},
        {17U, 0U, 1U, 17U},
        {116U, 60U, 100U, 131188U},
        {116U, 60U, 101U, 0U},
        {300016U, 300000U, 200000U, 500016U}}) {
    ZorPacket packet(capacity);
    packet.SetHeader(9, 0x0102, 0x0a0b0c0d);
    const std::string before(held, 'a'), after(piece, 'b');
    ASSERT_EQ(packet.AppendPayload(before.data(), held), 0);
    int result = 0;
    const auto length = static_cast<std::uint32_t>(after.size());
    const auto printed = printedBy([&] { result = packet.AppendPayload(after.data(), length); });
    EXPECT_EQ(result, capacityAfter == 0 ? -1 : 0);
    EXPECT_EQ(printed, result == 0 ? "" : "payload size larger than packet size\n");
    EXPECT_EQ(packet.mBuffer->capacity, result == 0 ? capacityAfter : capacity);
    const std::string payload = result == 0 ? before + after : before;
    const std::string expected =
        wire("27090201 0d0c0b0a") + le(16 + payload.size(), 4) + le(0, 4) + payload;
    EXPECT_EQ(bytesOf(packet).substr(0, 2 * expected.size()), hexOf(expected));
  }
  ZorPacket packet(32);
  packet.mHeaderReady = false;
  EXPECT_EQ(printedBy([&] { packet.AppendPayload("x", 1); }), "please init header first\n");
}

TEST(Packet, ParsingChecksTheHeaderAndLeavesAFailureUnchanged) {
  ZorPacket packet(0);
  packet.SetHeader(9, 100, 7);
  std::string bytes = wire("28010203 04050607 10000000 00000000");
  auto* data = reinterpret_cast<std::uint8_t*>(bytes.data());
  const auto parse = [&](std::uint32_t length) { return packet.FromBuffer(data, length, true); };
  EXPECT_EQ(printedBy([&] { EXPECT_EQ(parse(15), -1); }), "len is less than header\n");
  EXPECT_EQ(printedBy([&] { EXPECT_EQ(parse(16), -1); }), "error buffer format,magic[0x28 0x1]\n");
  EXPECT_EQ(packet.GetCmd(), 100);
  bytes[0] = 0x27;
  ASSERT_EQ(parse(16), 0);
  EXPECT_NE(packet.mBuffer->data, data);
  EXPECT_EQ(packet.GetDevId(), 1);
  EXPECT_EQ(packet.GetCmd(), 0x0302);
  EXPECT_EQ(packet.GetRequestId(), 0x07060504U);
  EXPECT_EQ(packet.GetLength(), 16U);
  const auto bigEndian = adopted("27090064 00000007 00000014 01000000 00000009");
  std::uint32_t value = 0;
  EXPECT_EQ(bigEndian->ReadUint32(&value), 0);
  EXPECT_EQ(bigEndian->GetCmd() * 1000 + bigEndian->GetRequestId() + bigEndian->GetLength() + value,
            100036U);
}

TEST(Packet, ACloneIsIndependentAndNeverLongerThanItsSource) {
  const auto packet = adopted("27026400 07000000 14000000 00000000 'abcdefgh'");
  EXPECT_EQ(bytesOf(*packet->Clone()), hexTyped("27026400 07000000 14000000 00000000 'abcd'"));
  std::uint32_t value = 0;
  for (const int result : {0, 0, -1}) EXPECT_EQ(packet->ReadUint32(&value), result);
  for (const std::uint32_t length : {0U, 15U, 25U, ~0U}) {
    packet->mHeader->length = length;
    printedBy([&] { EXPECT_EQ(packet->Clone(), nullptr) << length; });
  }
  packet->mBuffer.reset();
  packet->SetHeader(9, 100, 7);
  EXPECT_EQ(packet->AppendPayload("x", 1), -1);
  EXPECT_EQ(packet->GetPayload(), nullptr);
  EXPECT_EQ(packet->Clone(), nullptr);
  EXPECT_EQ(packet->GetDevId() + packet->GetLength(), 0U);
}

TEST(Framework, ItsOptionalPartsReachTheirOwnersAsLongAsTheseWant) {
  struct Owner final : PacketBudget, WaitListener, RequestSource {
    void ReleasePacket(std::size_t bytes) noexcept override { released += bytes; }
    void aboutToWait() noexcept override { ++waits; }
    void poll() noexcept override {}
    bool await() noexcept override { return false; }
    std::size_t released = 0;
    int waits = 0;
  } owner;
  auto packet = std::make_unique<ZorPacket>(20);
  packet->mBuffer->budget = &owner;
  packet->mBuffer->charge = 7;
  packet.reset();
  EXPECT_EQ(owner.released, 7U);
  for (WaitListener* listener : {static_cast<WaitListener*>(&owner), {}}) {
    listenForWaits(listener);
    notifyAboutToWait();
  }
  EXPECT_EQ(owner.waits, 1);
  RecordingDevice device;
  {
    const RequestSourceOffer offer(device, owner);
    EXPECT_EQ(requestSourceOf(&device), &owner);
  }
  EXPECT_EQ(requestSourceOf(&device), nullptr);
}

}  // namespace
}  // namespace zor::test
