// Requests that are cut off, or that lie about what they hold.
#include "disk_fixture.h"

namespace zor::test {
namespace {

class HostileRequestTest : public DiskTest {
 protected:
  HostileRequestTest() {
    for (const Probe* probe : everyRequest()) {
      // However a byte of it is changed, this is no name that mounting makes a directory of.
      const std::string path = probe->cmd == 100 ? "///" : "/" + probe->leaf();
      requests.emplace_back(probe->cmd, probe->request(path));
    }
  }
  /// One of every command that is served, without a byte too many.
  std::vector<std::pair<int, std::string>> requests;
};

TEST_F(HostileRequestTest, WhatIsCutOffGetsOneLineAndNothingElse) {
  const auto before = snapshot(base);
  for (const auto& [cmd, payload] : requests) {
    const std::string whole = headerOf(cmd, 16 + payload.size()) + payload;
    for (std::size_t cut = 16; cut < whole.size(); ++cut) {
      // Bytes are missing and the header says so, or does not; or the bytes
      // are there, but behind the end that the header declares.
      const std::string header = headerOf(cmd, cut);
      for (const std::string& bytes :
           {header + whole.substr(16, cut - 16), whole.substr(0, cut), header + whole.substr(16)}) {
        log.clear();
        op.EventHandle(packetOf(bytes));
        // A batch read has lines of its own, and none for a name that is cut off.
        const std::string line = cmd == 123 ? "small_file_read" : "malformed request, cmd: ";
        const std::size_t lines = cmd == 123 && cut >= 16 + 4 + 24 ? 0 : 1;
        ASSERT_EQ(log.errors(), lines) << cmd << " cut to " << cut;
        ASSERT_EQ(log.errors(line), lines) << cmd << " cut to " << cut;
      }
    }
  }
  EXPECT_EQ(snapshot(base), before);
  EXPECT_EQ(op.GetLocalMountPoint() + op.GetRemoteMountPoint(), disk);
  EXPECT_EQ(device.sent().size() + device.traces().size(), 0U);
  EXPECT_EQ(Peek::diskChanged(op), 0);
}

TEST_F(HostileRequestTest, NoByteOfAFixedPartCanDoHarm) {
  const auto before = snapshot(outside);
  for (const auto& [cmd, payload] : requests) {
    for (std::size_t at = 0; at < std::min<std::size_t>(payload.size(), 28); ++at) {
      layOut();
      for (const char value : {'\x00', '\x01', '\x7f', '\x80', '\xff'}) {
        std::string lying = payload;
        lying[at] = value;
        announce();
        ask(cmd, lying);  // checks the reply's header
      }
    }
  }
  EXPECT_EQ(snapshot(outside), before);
}

TEST_F(HostileRequestTest, AnEchoCannotBeLongerThanItsRequest) {
  for (const int cmd : {119, 120}) {
    op.EventHandle(packetOf(headerOf(cmd, 27) + wire("02000000 00000000 '/x'")));
    EXPECT_EQ(device.sent().size(), 0U);
  }
  EXPECT_EQ(log.errors("malformed"), 2U);
}

TEST_F(HostileRequestTest, ABatchReadIsRefusedWhole) {
  // Cut in the second header, more records than bytes, an empty name, a name that is too long;
  // 64 MiB are the most, and the sum does not wrap at 32 bits.
  for (const auto& row : table(R"(
    010000 | small_file_read payload_length 3, \n;
    02000000 0000000000000000 00000000 64000000 06000000 00000000 '/spare' 0000000000000000 |
             small_file_read remaining 8, \n;
    ffffffff 0000000000000000 00000000 64000000 06000000 00000000 '/spare' |
             small_file_read remaining 0, \n;
    02000000 0000000000000000 00000000 64000000 06000000 00000000 '/spare'
             0000000000000000 00000000 00000000 00000000 00000000 | ;
    01000000 0000000000000000 00000000 00000000 03000000 00000000 'ab' | ;
    01000000 0000000000000000 00000000 00000004 01000000 00000000 'a' | malformed;
    02000000 0000000000000000 00000000 b8ffffff 01000000 00000000 'a'
             0000000000000000 00000000 64000000 06000000 00000000 '/spare' | malformed;)")) {
    log.clear();
    EXPECT_EQ(answer(123, wire(row[0])), "none") << row[0];
    EXPECT_EQ(log.errors(row[1]), row[1].empty() ? 0U : 1U) << row[0];
    EXPECT_FALSE(log.has("file_read send back")) << row[0];
  }
}

}  // namespace
}  // namespace zor::test
