#include "host/io/reply_bound.h"

#include <algorithm>

#include "protocol/codec.h"
#include "protocol/commands.h"
#include "protocol/records.h"

namespace zor::host {
namespace {

constexpr std::uint64_t kMaxBatch = 64U << 20;

// What does not fit is not served, or only as far as it does.
std::uint64_t batchBound(wire::Cursor cursor) noexcept {
  wire::SmallFileRecord batch{};
  std::uint64_t sum = 0;
  cursor.get(batch);
  for (std::uint32_t i = 0; i < batch.num_records && sum < kMaxBatch; ++i) {
    wire::FileReadRecord file{};
    if (!cursor.get(file)) break;
    cursor.take(file.pathLength);
    sum += file.size;
  }
  return std::min(sum, kMaxBatch);
}

}  // namespace

std::optional<std::size_t> replyBound(const PacketHeader& header,
                                      std::span<const std::uint8_t> arrived) noexcept {
  using wire::Command;
  const bool read = header.cmd == code(Command::kFileRead);
  const bool batch = header.cmd == code(Command::kSmallFileRead);
  if (header.cmd == code(Command::kFileWrite)) return 0;  // only the path comes back
  if (!read && !batch) return header.length;
  if (header.length > kExaminedRequest) {
    return std::size_t{header.length} + (batch ? kMaxBatch : wire::kMaxReadSize);
  }
  if (arrived.size() < header.length) return std::nullopt;
  wire::Cursor cursor(std::as_bytes(arrived.first(header.length)));
  cursor.take(kPacketHeaderSize);
  if (batch) return header.length + batchBound(cursor);
  wire::FileReadRecord file{};
  return header.length + (cursor.get(file) ? std::min(file.size, wire::kMaxReadSize) : 0);
}

}  // namespace zor::host
