#include "host/log_limit.h"

#include <algorithm>

namespace zor::host {
namespace {

// The module's lines begin with "[TAG] file function(line): ".
std::string_view messageOf(std::string_view line) {
  constexpr std::size_t kMaxLength = 200;
  line = line.substr(0, kMaxLength);
  const std::size_t site = line.empty() || line[0] != '[' ? line.npos : line.find("): ");
  return line.substr(0, site != line.npos ? site + 1 : line.find_first_of("0123456789/\"'"));
}

}  // namespace

bool LogLimit::admits(std::string_view line, Time now) {
  if (now >= mEnd) {
    report();
    mEnd = now + kPeriod;
  }
  const std::string_view message = messageOf(line);
  auto count = mCounts.find(message);
  if (count == mCounts.end()) {
    if (mCounts.size() == kMessages) {
      ++mLeftOut, ++mOthers;
      return false;
    }
    count = mCounts.emplace(message, 0).first;
  }
  if (++count->second <= kPerMessage) return true;
  ++mLeftOut;
  return false;
}

void LogLimit::report() {
  for (const auto& [message, count] : mCounts) {
    if (count <= kPerMessage) continue;
    write("left out " + std::to_string(count - kPerMessage) + " more lines like: " + message);
  }
  if (mOthers > 0) write("left out " + std::to_string(mOthers) + " lines of other messages");
  mCounts.clear();
  mLeftOut = mOthers = 0;
}

}  // namespace zor::host
