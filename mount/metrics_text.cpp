#include "mount/metrics_text.h"

#include <initializer_list>
#include <string_view>
#include <utility>

namespace zor::client::mount {
namespace {

using Number = std::pair<std::string_view, std::uint64_t>;

std::string line(std::string_view title, std::initializer_list<Number> numbers) {
  std::string text(title);
  std::string_view separator = ": ";
  for (const auto& [unit, value] : numbers) {
    text.append(separator).append(std::to_string(value)).append(" ").append(unit);
    separator = ", ";
  }
  return text + "\n";
}

}  // namespace

std::string describe(const DriveCounters& counters) {
  return line("cache", {{"hits", counters.cacheHits},
                        {"misses", counters.cacheMisses},
                        {"names known", counters.knownNames}}) +
         line("directory checks",
              {{"in all", counters.dirChecks}, {"unchanged", counters.dirUnchanged}}) +
         line("programs", {{"bytes read", counters.bytesRead},
                           {"bytes written", counters.bytesWritten},
                           {"failed writes", counters.failedWrites}}) +
         line("pending writes",
              {{"bytes", counters.pendingBytes}, {"files", counters.pendingFiles}}) +
         line("read ahead",
              {{"bytes used", counters.readAheadBytes}, {"not used", counters.readAheadWasted}}) +
         line("small files", {{"from batches", counters.smallFileHits},
                              {"batches", counters.smallFileBatches},
                              {"not used", counters.smallFilesWasted}});
}

}  // namespace zor::client::mount
