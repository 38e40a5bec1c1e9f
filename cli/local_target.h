// What a file is to be written to on this machine.
#pragma once

#include <memory>
#include <string>

#include "cli/local_tree.h"
#include "client/result.h"

namespace zor::client::cli {

/// A name for a file that replaces or becomes it, or a descriptor that is written to.
struct LocalTarget {
  std::shared_ptr<LocalDir> dir;
  std::string name;
  UniqueFd stream;  ///< when valid, the others are empty
};

/// What the user means by `name` in `dir`, whose path is `dirPath`: a regular file and what
/// does not exist are named, a link is followed to one, a FIFO or character device is opened;
/// all else is refused. Opening a FIFO waits for its reader.
Result<LocalTarget> openTarget(std::shared_ptr<LocalDir> dir, const std::string& dirPath,
                               const std::string& name);

/// Standard output, when that is what `path` means.
std::optional<LocalTarget> standardOutput(const std::string& path);

}  // namespace zor::client::cli
