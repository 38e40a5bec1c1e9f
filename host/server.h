// Taking in remotes, one at a time, until a signal says to end.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host_device.h"
#include "listener.h"
#include "module_loader.h"

namespace zor::host {

struct ServerHooks {
  std::function<void(Listener&)> listening;  ///< signals are awaited, the socket is there
  std::function<void()> arrived;             ///< a remote is about to be served
  std::function<void()> closed;              ///< the end has begun, the socket is closed
};

/// Listens on `socketPath` and serves until SIGINT or SIGTERM arrives; returns
/// once the connection's driver is closed and the socket's path removed. A
/// second signal meanwhile ends the process with exit code 1. Throws
/// std::runtime_error when it cannot listen. `served` is named in the log.
///
/// To be called on the main thread, while there is no other.
void runServer(const DriverModule& module, std::shared_ptr<HostDevBase> base,
               const std::string& socketPath, const std::string& served, const ServerHooks& hooks);

}  // namespace zor::host
