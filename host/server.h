// Taking in remotes, one at a time, until a signal says to end.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host_device.h"
#include "module_loader.h"

namespace zor::host {

/// Listens on `socketPath` and serves until SIGINT or SIGTERM arrives; returns
/// once the connection's driver is closed and the socket's path removed. A
/// second signal meanwhile ends the process with exit code 1. Throws
/// std::runtime_error when it cannot listen. `served` is named in the log.
/// `listening` is called once signals are awaited and the socket is there.
///
/// To be called on the main thread, while there is no other.
void runServer(const DriverModule& module, std::shared_ptr<HostDevBase> base,
               const std::string& socketPath, const std::string& served,
               const std::function<void()>& listening);

}  // namespace zor::host
