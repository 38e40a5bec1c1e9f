// The sides that are compared: each does the same works in its own way.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "server.h"
#include "tree.h"
#include "work.h"

namespace zor::bench {

/// When no further item is begun.
class Until {
 public:
  using Clock = std::chrono::steady_clock;

  static Until time(std::chrono::duration<double> duration) {
    return Until(Clock::now() + std::chrono::duration_cast<Clock::duration>(duration), 0);
  }
  static Until items(std::uint64_t count) { return Until(Clock::time_point::max(), count); }

  /// For items of which each is worth `factor`, or the `divisor`th part, of the
  /// others.
  Until scaled(std::uint64_t divisor, std::uint64_t factor = 1) const {
    return Until(mEnd, mItems / divisor * factor);
  }

  bool over(std::uint64_t begun) const {
    return mItems != 0 ? begun >= mItems : Clock::now() >= mEnd;
  }

 private:
  Until(Clock::time_point end, std::uint64_t items) : mEnd(end), mItems(items) {}

  Clock::time_point mEnd;
  std::uint64_t mItems;
};

class Side {
 public:
  virtual ~Side() = default;

  virtual std::string_view name() const = 0;

  /// The process that serves; null where there is none.
  virtual const Server* server() const { return nullptr; }

  /// Does the work until it is over and nothing is in flight; returns the
  /// units done. When `checked`, everything read is compared with what it
  /// should be. Throws std::exception; this object is of no use then.
  virtual double run(const WorkTraits& work, const Until& until, bool checked) = 0;

  /// What writes of this side put into the file, repeated with each piece.
  /// Unlike that of other sides, so that a check sees whose data it is.
  virtual std::uint64_t writtenSeed() const = 0;
};

struct Programs {
  std::filesystem::path host;
  std::filesystem::path sftpServer;
};

// The trees and the programs must outlive the sides.

/// The host, spoken to by the bench's own client.
std::unique_ptr<Side> makeUdiskSide(const Programs& programs, const Tree& tree);
/// The peer, spoken to by the same client in the peer's language.
std::unique_ptr<Side> makeSftpSide(const Programs& programs, const Tree& tree);
/// The same system calls without a server.
std::unique_ptr<Side> makePosixSide(const Tree& tree);

}  // namespace zor::bench
