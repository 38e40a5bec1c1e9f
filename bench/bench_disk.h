// A disk to measure on: a temporary directory with known contents, and an
// operator whose replies go nowhere.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "operator/udisk_operator.h"
#include "protocol/codec.h"
#include "protocol/commands.h"

namespace zor::bench {

/// Takes replies and drops them; keeps the last one when asked to.
class NullDevice final : public ZorDevice {
 public:
  std::shared_ptr<ZorDevBase> GetDevBase() override { return nullptr; }
  std::uint8_t GetDevId() override { return 1; }
  int SendPacket(std::unique_ptr<ZorPacket> packet, int timeoutMs) override;
  void NotifyReadFailure(const std::string&) override {}

  std::uint64_t replies = 0;
  std::unique_ptr<ZorPacket> last;
};

/// A request that can be served again and again.
class Prepared {
 public:
  template <class Record>
  Prepared(wire::Command command, const Record& record, const std::string& behind)
      : mPacket(std::make_unique<ZorPacket>(kPacketHeaderSize + wire::wireSize<Record>() +
                                            behind.size())) {
    const auto fixed = wire::encoded(record);
    mPacket->SetHeader(1, code(command), 7);
    mPacket->AppendPayload(fixed.data(), static_cast<std::uint32_t>(fixed.size()));
    mPacket->AppendPayload(behind.data(), static_cast<std::uint32_t>(behind.size()));
  }
  /// What the receive path would hand over.
  std::unique_ptr<ZorPacket> copy() const { return mPacket->Clone(); }

 private:
  std::unique_ptr<ZorPacket> mPacket;
};

class BenchDisk {
 public:
  BenchDisk();
  ~BenchDisk();
  BenchDisk(const BenchDisk&) = delete;
  BenchDisk& operator=(const BenchDisk&) = delete;

  static constexpr int kFiles = 2000;                 ///< of 4 KiB, in /files
  static constexpr int kManyNames = 10'000;           ///< empty, in /many
  static constexpr std::int64_t kBigSize = 64 << 20;  ///< of /big

  static std::string fileName(int number);
  std::string local(const std::string& remote) const { return mRoot + remote; }
  void serve(const Prepared& request) { op.EventHandle(request.copy()); }
  /// The listing of a directory as a peer would hold it, and its entry count.
  std::string listing(const std::string& directory, std::uint16_t& count);

  NullDevice device;
  UDiskOperator op{&device};

 private:
  std::string mRoot;
};

}  // namespace zor::bench
