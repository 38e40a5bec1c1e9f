#include "frame_reader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace zor::host {
namespace {

using namespace std::string_literals;

// Puts `bytes` in, at most `chunk` at a time, and writes down what comes out:
// cmd, request id, length and payload of each packet, and how it ended.
std::string feed(std::string_view bytes, std::size_t chunk) {
  ReceiveBudget budget;
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
}

TEST(FrameReader, ReadsPacketsLargerThanItsBuffer) {
  std::string large(1000003, '\0');
  for (std::size_t i = 16; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 / 5);
  std::memcpy(large.data(), "\x27\1\x6a\0\5\0\0\0\x43\x42\x0f\0\0\0\0\0", 16);
  const std::string expected = "119/4294967295/ 106/5/" + large.substr(16) + " 102/7/abc between";
  for (const std::size_t chunk : {15U, 16U, 4097U, 262144U, 999999U, 2000000U}) {
    EXPECT_TRUE(feed(kEmpty + large + kLittle, chunk) == expected) << "in pieces of " << chunk;
  }
}

}  // namespace
}  // namespace zor::host
