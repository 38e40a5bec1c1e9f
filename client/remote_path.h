// Paths on the disk, as people type them.
#pragma once

#include <string>
#include <string_view>

namespace zor::client {

/// An absolute path without empty components, "." and "..", which are resolved
/// by their text alone ("/a/../b" is "/b", and ".." stays at the root).
std::string normalPath(std::string_view typed);

/// REQUIRES: a normal path. The root's name is empty, its parent is itself.
std::string_view baseName(std::string_view path);
std::string parentPath(std::string_view path);

/// REQUIRES: a normal path.
std::string joinPath(std::string_view directory, std::string_view name);

}  // namespace zor::client
