#include "bench_disk.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "protocol/records.h"

namespace zor::bench {

namespace fs = std::filesystem;

int NullDevice::SendPacket(std::unique_ptr<ZorPacket> packet, int /*timeoutMs*/) {
  ++replies;
  last = std::move(packet);
  return 0;
}

std::string BenchDisk::fileName(int number) { return "/files/file" + std::to_string(number); }

BenchDisk::BenchDisk() {
  std::string pattern = (fs::temp_directory_path() / "udisk-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
  mRoot = pattern;
  fs::create_directory(local("/files"));
  fs::create_directory(local("/many"));
  const std::string block(4096, 'x');
  for (int i = 0; i < kFiles; ++i) std::ofstream(local(fileName(i))) << block;
  for (int i = 0; i < kManyNames; ++i) std::ofstream(local("/many/name" + std::to_string(i)));
  std::ofstream big(local("/big"));
  for (std::int64_t at = 0; at < kBigSize; at += 4096) big << block;
  big.close();
  op.SetRootPath(mRoot.data(), const_cast<char*>(""));
}

BenchDisk::~BenchDisk() {
  std::error_code ignored;
  fs::remove_all(mRoot, ignored);
}

std::string BenchDisk::listing(const std::string& directory, std::uint16_t& count) {
  const wire::DirRecord record{0, 0, static_cast<std::uint16_t>(directory.size()), 0};
  serve(Prepared(wire::Command::kDirRead, record, directory));
  const std::size_t fixed = wire::wireSize<wire::DirRecord>();
  wire::DirRecord reply{};
  const auto* payload = reinterpret_cast<const std::byte*>(device.last->GetPayload());
  wire::Cursor(wire::Bytes(payload, fixed)).get(reply);
  count = reply.entryCount;
  const auto* listing = reinterpret_cast<const char*>(payload + fixed + directory.size());
  return {listing, reply.listingLength};
}

}  // namespace zor::bench
