// Writing a file of the disk to an output from its beginning to its end.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/command.h"

namespace zor::client::cli {

/// Writes the file with many requests in flight and returns the bytes that it had. `size` is
/// nothing when it is known only from the end of the data. The output is not flushed. REQUIRES:
/// the loop does not catch signals yet.
Result<std::int64_t> streamFile(CommandContext& context, Output& out, std::string path,
                                std::optional<std::int64_t> size);

}  // namespace zor::client::cli
