// A disk in a temporary directory, the operator that serves it, and beside it
// what no request may ever touch.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <optional>
#include <set>

#include "log_lines.h"
#include "operator/operation.h"
#include "operator/udisk_operator.h"
#include "probes.h"
#include "recording_device.h"
#include "wire_text.h"

namespace zor {

struct UDiskOperatorPeek {
  static auto& diskChanged(UDiskOperator& op) { return op.mDiskChanged; }
  static auto& statistics(UDiskOperator& op) { return op.mStatvfsList; }
  static auto& bandwidth(UDiskOperator& op) { return op.mBandwidth; }
  static auto& bandwidthTime(UDiskOperator& op) { return op.mBandwidthTime; }
  static auto& bandwidthTraceTime(UDiskOperator& op) { return op.mBandwidthTraceTime; }
  static auto& windowBytes(UDiskOperator& op) { return op.mWindowBytes; }
};

}  // namespace zor

namespace zor::test {

namespace fs = std::filesystem;
using Peek = UDiskOperatorPeek;

inline std::string headerOf(int cmd, std::size_t length, int devId = 9) {
  return "\x27" + std::string(1, static_cast<char>(devId)) + le(static_cast<unsigned>(cmd), 2) +
         "\x11\x22\x33\x44" + le(length, 4) + le(0, 4);
}

/// The bytes in a block of exactly their size, so that a sanitizer sees any access behind them.
inline std::unique_ptr<ZorPacket> packetOf(const std::string& bytes) {
  auto* memory = static_cast<std::uint8_t*>(std::malloc(bytes.size()));
  std::memcpy(memory, bytes.data(), bytes.size());
  auto packet = std::make_unique<ZorPacket>(0);
  packet->FromBuffer(memory, static_cast<std::uint32_t>(bytes.size()), false);
  return packet;
}

inline std::unique_ptr<ZorPacket> requestOf(int cmd, const std::string& payload, int devId = 9) {
  return packetOf(headerOf(cmd, 16 + payload.size(), devId) + payload);
}

/// The record of a file_read, which is also one of a small_file_read.
inline std::string readOf(const std::string& path, std::uint32_t size = 4,
                          std::int64_t offset = 0) {
  return le(static_cast<std::uint64_t>(offset), 8) + le(0, 4) + le(size, 4) + le(path.size(), 4) +
         le(0, 4) + path;
}

inline void put(const std::string& path, const std::string& contents) {
  std::ofstream(path, std::ios::binary) << contents;
}

inline std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline struct stat lstatOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

/// A line for everything below a directory; with `times` also when it last changed in any way.
inline std::string snapshot(const std::string& root, bool times = true) {
  std::set<std::string> lines;
  const auto add = [&](const std::string& path) {
    const struct stat status = lstatOf(path);
    std::ostringstream line;
    line << path.substr(root.size()) << std::oct << " " << status.st_mode << std::dec;
    if (times) line << " at " << status.st_ctim.tv_sec << "." << status.st_ctim.tv_nsec;
    if (S_ISREG(status.st_mode)) line << " links " << status.st_nlink << " " << contentsOf(path);
    if (S_ISLNK(status.st_mode)) line << " -> " << fs::read_symlink(path);
    lines.insert(line.str() + "\n");
  };
  add(root);
  for (const auto& entry : fs::recursive_directory_iterator(root)) add(entry.path());
  return std::accumulate(lines.begin(), lines.end(), std::string());
}

/// A request for every command that is served, in the order of the dispatch table.
inline std::vector<const Probe*> everyRequest() {
  std::vector<const Probe*> all;
  for (const Operation& operation : UDiskOperator::Operations()) {
    if (operation.handler == nullptr) continue;
    for (const std::span<const Probe> some : {std::span<const Probe>(kProbes), {kUnfailing}}) {
      for (const Probe& probe : some) {
        if (probe.cmd == code(operation.command)) all.push_back(&probe);
      }
    }
    EXPECT_TRUE(!all.empty() && all.back()->cmd == code(operation.command))
        << operation.name << " has no request in probes.h";
  }
  return all;
}

class DiskTest : public testing::Test {
 protected:
  DiskTest() {
    base = testing::TempDir() + "udisk-test-XXXXXX";
    EXPECT_NE(::mkdtemp(base.data()), nullptr);
    disk = base + "/disk";
    outside = base + "/outside";
    ::umask(022);
    // The same names everywhere: a path that leads astray finds something.
    for (const std::string& place : {outside, base + "/disk-sibling"}) {
      fs::create_directories(place + "/empty");
      put(place + "/inside.txt", "canary");
    }
    layOut();
    announce();
    mDescriptors = descriptors();
  }
  ~DiskTest() override {
    // A descriptor that stays open would keep a disk from being unmounted.
    EXPECT_EQ(descriptors(), mDescriptors);
    fs::remove_all(base);
  }

  /// The disk as every test finds it; the directory itself stays the same one.
  void layOut() {
    fs::create_directory(disk);
    fs::permissions(disk, fs::perms(0755));
    for (const auto& entry : fs::directory_iterator(disk)) fs::remove_all(entry);
    fs::create_directories(disk + "/empty");
    fs::create_directories(disk + "/sub/deep");
    put(disk + "/inside.txt", "0123456789");
    put(disk + "/spare", "spare");
    std::istringstream links(
        "in sub/.. sub/back .. in-file inside.txt in-empty empty rel ../outside "
        "sub/up ../.. link-empty ../outside/empty out " +
        outside + " link-inside.txt " + outside + "/inside.txt link-fresh " + outside + "/fresh");
    for (std::string link, target; links >> link >> target;) {
      fs::create_symlink(target, disk + "/" + link);
    }
  }
  void announce() { op.SetRootPath((base + "/").data(), std::string("disk").data()); }

  /// Serves one request. The payload of its reply, or nothing without one.
  std::optional<std::string> ask(int cmd, const std::string& payload) {
    device.forgetSent();
    op.EventHandle(requestOf(cmd, payload));
    const auto sent = device.sent();
    if (sent.empty()) return std::nullopt;
    EXPECT_EQ(sent.size(), 1U);
    EXPECT_EQ(hexOf(sent[0].substr(0, 16)), hexOf(headerOf(cmd, sent[0].size())));
    return sent[0].substr(16);
  }
  /// The reply in hexadecimal, "none" without one; bytes that `typed` leaves open are dots.
  std::string answer(int cmd, const std::string& payload, const std::string& typed = "") {
    const auto reply = ask(cmd, payload);
    std::string hex = reply ? hexOf(*reply) : "none";
    for (std::size_t at = 0; at < std::min(hex.size(), typed.size()); ++at) {
      if (typed[at] == '.') hex[at] = '.';
    }
    return hex;
  }
  /// A table of "COMMAND REQUEST | REPLY", all typed. "=" is the request again, "none" no reply,
  /// and a dot any digit.
  void converse(const std::string& script) {
    for (const auto& row : table(script)) {
      const std::string request = wire(row[0].substr(4)), typed = hexTyped(row.at(1));
      const std::string expected = typed == "=" ? hexOf(request) : typed;
      EXPECT_EQ(answer(std::stoi(row[0]), request, expected), expected) << row[0];
    }
  }

  std::string base, disk, outside;
  LogLines log;
  RecordingDevice device;
  UDiskOperator op{&device};

 private:
  static std::ptrdiff_t descriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  }
  std::ptrdiff_t mDescriptors = 0;
};

}  // namespace zor::test
