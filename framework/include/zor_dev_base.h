// The framework's description of a redirected device.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace zor {

using TraceAttributes = std::map<std::string, std::string>;

struct ZorPathEntry {
  std::string pattern;  ///< the glob that matched
};

/// The remote paths whose reads and writes are to be traced. Filled before the
/// device is handed out, and only read from then on: look-ups need no lock.
class ZorPathTable {
 public:
  /// Adds a shell glob; `*` also matches "/".
  void Add(std::string pattern);
  /// The first entry that matches `path`, or an empty pointer.
  std::shared_ptr<ZorPathEntry> Lookup(const std::string& path) const;
  bool Empty() const noexcept { return mEntries.empty(); }

 private:
  std::vector<std::shared_ptr<ZorPathEntry>> mEntries;
};

/// Reached through `ZorDevice::GetDevBase`. The operations are called on any
/// thread of a driver. The order of the virtual operations is fixed.
class ZorDevBase {
 public:
  ZorDevBase() = default;
  virtual ~ZorDevBase();
  ZorDevBase(const ZorDevBase&) = delete;
  ZorDevBase& operator=(const ZorDevBase&) = delete;

  /// The device's parameters, a JSON text.
  virtual std::string GetParams() = 0;
  /// May be empty.
  virtual std::shared_ptr<ZorPathTable> GetPathTable() = 0;
  virtual void TraceEvent(const std::string& traceId, const std::string& eventName,
                          const TraceAttributes& attributes) = 0;
  virtual void TraceEvent(const std::string& traceId, const std::string& context,
                          const std::string& eventName, const TraceAttributes& attributes) = 0;

  std::uint8_t bus = 0;   ///< USB bus number
  std::uint8_t addr = 0;  ///< USB address on that bus
};

}  // namespace zor
