// Whether a name exists on the disk.
#pragma once

#include <optional>
#include <string>

#include "client/disk.h"

namespace zor::client {

/// The outcome of a query about a name. A host refuses a query in the same way
/// when the name is missing and when the disk fails or was pulled, so a refusal
/// alone proves nothing: the name is absent only when its parent directory could
/// be queried right behind it.
class Presence {
 public:
  static Presence present(const udisk_stat& attributes) { return Presence(attributes, false); }
  static Presence absent() { return Presence(std::nullopt, true); }
  static Presence unknown() { return Presence(std::nullopt, false); }

  bool isPresent() const noexcept { return mAttributes.has_value(); }
  bool isAbsent() const noexcept { return mAbsent; }
  /// The disk cannot be read, or there was no answer.
  bool isUnknown() const noexcept { return !mAbsent && !mAttributes; }

  /// REQUIRES: isPresent().
  const udisk_stat& attributes() const { return mAttributes.value(); }

 private:
  Presence(const std::optional<udisk_stat>& attributes, bool absent)
      : mAttributes(attributes), mAbsent(absent) {}

  std::optional<udisk_stat> mAttributes;
  bool mAbsent;
};

/// Queries `path` (a normal path) and its parent directory in one round trip.
/// `done` always gets a Presence; it runs when both are answered.
void queryPresence(Disk& disk, const std::string& path, Callback<Presence> done);

}  // namespace zor::client
