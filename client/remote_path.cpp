#include "client/remote_path.h"

#include <algorithm>
#include <vector>

namespace zor::client {

std::string normalPath(std::string_view typed) {
  std::vector<std::string_view> parts;
  while (!typed.empty()) {
    const std::string_view part = typed.substr(0, typed.find('/'));
    typed.remove_prefix(std::min(part.size() + 1, typed.size()));
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
  }
  std::string path;
  for (const std::string_view part : parts) path.append("/").append(part);
  return path.empty() ? "/" : path;
}

std::string_view baseName(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::string parentPath(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return std::string(path.substr(0, slash == 0 ? 1 : slash));
}

std::string joinPath(std::string_view directory, std::string_view name) {
  std::string path(directory);
  if (path.back() != '/') path += '/';
  return path.append(name);
}

}  // namespace zor::client
