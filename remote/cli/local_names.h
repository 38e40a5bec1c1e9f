// Reading this machine's directories.
#pragma once

#include <string>
#include <vector>

#include "result.h"

namespace zor::remote::cli {

/// The names in a directory except "." and "..", sorted.
Result<std::vector<std::string>> namesIn(const std::string& path);

}  // namespace zor::remote::cli
