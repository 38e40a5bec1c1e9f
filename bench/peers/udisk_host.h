// Starting the host as people would.
#pragma once

#include <memory>
#include <string>

#include "server.h"
#include "tree.h"

namespace zor::bench {

/// Throws std::exception when it cannot be started; `name` keeps hosts apart.
std::unique_ptr<Server> startHost(const std::filesystem::path& program, const Tree& tree,
                                  const std::string& name);
/// Waits until the host listens.
UniqueFd connectHost(const Server& host, const Tree& tree, const std::string& name);
std::string hostSocket(const Tree& tree, const std::string& name);

}  // namespace zor::bench
