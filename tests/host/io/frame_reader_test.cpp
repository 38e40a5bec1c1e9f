#include "host/io/frame_reader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "driver/wire_text.h"

namespace zor::host {
namespace {

using namespace std::string_literals;
using test::le;

// Puts `bytes` in, at most `chunk` at a time, and writes down what comes out:
// cmd, request id, length and payload of each packet, and how it ended.
std::string feed(std::string_view bytes, std::size_t chunk) {
  SharedBudget shared;
  ReceiveBudget budget{shared};
  std::string log;
  {
    FrameReader reader(budget);
    for (std::unique_ptr<ZorPacket> packet;;) {
      const FrameReader::Status status = reader.next(packet);
      if (status == FrameReader::Status::kPacket) {
        const auto* payload = reinterpret_cast<const char*>(packet->GetPayload());
        log += std::to_string(packet->GetCmd()) + '/' + std::to_string(packet->GetRequestId()) +
               '/' + std::string(payload, packet->GetLength() - kPacketHeaderSize) + ' ';
        continue;
      }
      if (status != FrameReader::Status::kMore) {
        log += status == FrameReader::Status::kBadMagic ? "bad magic" : "bad length";
        break;
      }
      if (bytes.empty()) {
        log += reader.insidePacket() ? "inside" : "between";
        break;
      }
      std::size_t given = 0;
      for (const iovec& space : reader.space()) {
        const std::size_t part = std::min({space.iov_len, bytes.size(), chunk - given});
        std::memcpy(space.iov_base, bytes.data(), part);
        bytes.remove_prefix(part);
        given += part;
      }
      reader.commit(given);
    }
  }
  EXPECT_TRUE(budget.waitIdle());  // hangs when a packet gave back less than it took
  return log;
}

const std::string kLittle = "\x27\1\x66\0\7\0\0\0\x13\0\0\0\0\0\0\0abc"s;
const std::string kBig = "\x27\1\2\1\0\0\0\x9\0\0\0\x12\1\0\0\0hi"s;
const std::string kEmpty = "\x27\1\x77\0\xff\xff\xff\xff\x10\0\0\0\0\0\0\0"s;

TEST(FrameReader, CutsTheSamePacketsWhereverTheStreamIsSplit) {
  const struct {
    std::string stream, expected;
  } table[] = {
      {kLittle + kBig + kEmpty + kLittle, "102/7/abc 513/9/hi 119/4294967295/ 102/7/abc between"},
      {kLittle + kBig.substr(0, 17), "102/7/abc inside"},
      {kEmpty + kEmpty.substr(0, 1), "119/4294967295/ inside"},
      {kLittle + "\x28" + kLittle, "102/7/abc bad magic"},
      {kEmpty + "\x27\1\x66\0\7\0\0\0\x0f\0\0\0\0\0\0\0"s, "119/4294967295/ bad length"},
      {"\x27\1\x66\0\7\0\0\0\x01\0\0\x04\0\0\0\0"s, "bad length"},
      {"\x27\1\x66\0\7\0\0\0\0\0\0\x04\0\0\0\0"s, "inside"},  // exactly the maximum
      {"\x27\1\0\x66\0\0\0\7\x04\0\0\x01\1\0\0\0"s, "bad length"},
      {"\x27\1\0\x66\0\0\0\7\x04\0\0\0\1\0\0\0"s, "inside"},
  };
  for (const auto& row : table) {
    for (std::size_t chunk = 1; chunk <= row.stream.size(); ++chunk) {
      EXPECT_EQ(feed(row.stream, chunk), row.expected) << "in pieces of " << chunk;
    }
  }
  std::string large(1000003, '\0');  // than the buffer
  for (std::size_t i = 16; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 / 5);
  std::memcpy(large.data(), "\x27\1\x6a\0\5\0\0\0\x43\x42\x0f\0\0\0\0\0", 16);
  const std::string expected = "119/4294967295/ 106/5/" + large.substr(16) + " 102/7/abc between";
  for (const std::size_t chunk : {15U, 16U, 4097U, 262144U, 999999U, 2000000U}) {
    EXPECT_TRUE(feed(kEmpty + large + kLittle, chunk) == expected) << "in pieces of " << chunk;
  }
}

std::string packetOf(unsigned cmd, const std::string& payload) {
  return "\x27\1"s + le(cmd, 2) + le(1, 4) + le(16 + payload.size(), 4) + le(0, 4) + payload;
}
std::string fileOf(std::uint32_t size, const std::string& name) {
  return le(0, 12) + le(size, 4) + le(name.size(), 4) + le(0, 4) + name;
}

// With what its reply may take, in whichever pieces it came.
TEST(FrameReader, CountsWhatAReplyMayTake) {
  constexpr std::size_t kMiB = 1U << 20;
  std::string many = le(600, 4);
  for (int i = 0; i < 600; ++i) many += fileOf(1000, "/" + std::string(100, 'n'));
  const struct {
    std::string packet;
    std::size_t reply;
  } table[] = {{packetOf(105, fileOf(5000, "/f")), 42 + 5000},
               {packetOf(105, fileOf(0xffffffff, "/f")), 42 + 32 * kMiB},
               {packetOf(105, "short"), 21},
               {packetOf(106, std::string(50000, 'x')), 0},
               {packetOf(119, std::string(50000, 'x')), 50016},
               {packetOf(123, many), 16 + many.size() + 600 * 1000},
               {packetOf(123, le(2, 4) + fileOf(0xffffffff, "/f")), 46 + 64 * kMiB},
               {packetOf(123, std::string(200000, 'x')), 200016 + 64 * kMiB}};
  for (const auto& row : table) {
    for (const std::size_t chunk : {15U, 5000U, 300000U}) {
      SharedBudget shared;
      ReceiveBudget budget(shared);
      FrameReader reader(budget);
      std::unique_ptr<ZorPacket> packet;
      for (std::size_t at = 0; reader.next(packet) != FrameReader::Status::kPacket;) {
        const iovec space = reader.space()[0];
        const std::size_t part = std::min({space.iov_len, chunk, row.packet.size() - at});
        ASSERT_GT(part, 0U);
        std::memcpy(space.iov_base, row.packet.data() + at, part);
        reader.commit(part);
        at += part;
      }
      EXPECT_EQ(budget.total(), row.packet.size() + 256 + row.reply)
          << &row - table << " " << chunk;
    }
  }
}

}  // namespace
}  // namespace zor::host
