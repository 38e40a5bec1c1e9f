#include "cli/progress.h"

#include <algorithm>

#include "cli/format.h"

namespace zor::client::cli {

void Progress::moved(std::uint64_t bytes) {
  mBytesDone += bytes;
  if (mConsole.statusDue()) show();
}

void Progress::show() {
  constexpr std::size_t kBarWidth = 24;
  // Files may turn out longer than they were listed.
  const double whole = static_cast<double>(std::max({mBytes, mBytesDone, std::uint64_t{1}}));
  const double part = static_cast<double>(mBytesDone) / whole;
  const auto filled = static_cast<std::size_t>(part * kBarWidth);
  const std::chrono::duration<double> time = Clock::now() - mStart;
  const double rate = static_cast<double>(mBytesDone) / std::max(time.count(), 0.001);
  mConsole.status("[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] " +
                  padded(std::to_string(static_cast<int>(part * 100)), 3) + "%  " +
                  humanSize(mBytesDone) + " of " + humanSize(mBytes) + "  " +
                  std::to_string(mFilesDone) + "/" + counted(mFiles, "file") + "  " +
                  humanSize(static_cast<std::uint64_t>(rate)) + "/s");
}

void Progress::summary(std::string_view done, std::uint64_t failures) {
  const std::string size =
      mBytesDone < 1024 ? counted(mBytesDone, "byte") : humanSize(mBytesDone) + "iB";
  std::string text = std::string(done) + " " + counted(mFilesDone, "file");
  if (missing() > 0) text += " of " + std::to_string(mFiles);
  text += ", " + size;
  if (failures > 0) text += "; " + counted(failures, "failure");
  mConsole.message(text);
}

}  // namespace zor::client::cli
