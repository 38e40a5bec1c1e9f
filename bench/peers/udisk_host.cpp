#include "udisk_host.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include "connection.h"

namespace zor::bench {

std::string hostSocket(const Tree& tree, const std::string& name) {
  return tree.beside(name + ".sock");
}

std::unique_ptr<Server> startHost(const std::filesystem::path& program, const Tree& tree,
                                  const std::string& name) {
  return std::make_unique<Server>(
      std::vector<std::string>{program, "serve", tree.root(), "--socket", hostSocket(tree, name)},
      UniqueFd(), tree.beside(name + ".log"));
}

UniqueFd connectHost(const Server& host, const Tree& tree, const std::string& name) {
  for (int i = 0; i < 4000 && host.running(); ++i) {
    auto socket = remote::connectUnix(hostSocket(tree, name));
    if (socket) return std::move(*socket);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  throw std::runtime_error("the host cannot be reached; it said:\n" + host.log());
}

}  // namespace zor::bench
