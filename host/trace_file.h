// Trace events as lines of a file.
#pragma once

#include <string>

#include "support/mutex.h"
#include "support/unique_fd.h"
#include "zor_dev_base.h"

namespace zor::host {

/// Appends one JSON object per event: id, event, context, attributes and time
/// (ISO 8601, UTC, milliseconds), in UTF-8 whatever bytes the event carries.
/// A line is in the file when `write` returns. Thread-safe.
class TraceFile {
 public:
  /// Opens `path` for appending; a new file is readable by its owner only. A link is not
  /// followed, and what belongs to somebody else is not written to.
  /// Throws std::runtime_error when that fails.
  explicit TraceFile(const std::string& path);

  /// Never throws. An event that cannot be written is lost; the first such
  /// loss is logged.
  void write(const std::string& traceId, const std::string& context, const std::string& eventName,
             const TraceAttributes& attributes) noexcept;

 private:
  bool append(const std::string& line) noexcept REQUIRES(mMutex);

  const std::string mPath;
  const UniqueFd mFile;
  Mutex mMutex;
  bool mTorn GUARDED_BY(mMutex) = false;        ///< the file ends in the middle of a line
  bool mLossLogged GUARDED_BY(mMutex) = false;  ///< the one line about lost events was written
};

}  // namespace zor::host
