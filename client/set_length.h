// Setting a file's length exactly.
#pragma once

#include <cstdint>
#include <string>

#include "client/disk.h"

namespace zor::client {

/// Gives a file exactly this length, also where `Disk::truncate` would cut it:
/// a file grows by its last byte being written, and one that must shrink to
/// more than kTruncateLimit gets, for the moment, a name for which hosts have
/// no limit. Waits for several requests.
Status setLength(Disk& disk, const std::string& path, std::uint64_t length);

/// Whether hosts truncate a file of this name to any length: known when a dot
/// stands anywhere in the path.
bool hasUnlimitedName(std::string_view path);

}  // namespace zor::client
