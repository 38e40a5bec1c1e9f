// Taking in clients until a signal says to end.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "host/host_device.h"
#include "host/host_signals.h"
#include "host/listener.h"
#include "host/module_loader.h"
#include "host/served_directory.h"

namespace zor::host {

/// The most clients that can be served at once: what each can always have in flight is
/// part of a bound for all of them.
inline constexpr std::size_t kMaxClients = 8;

struct ServerOptions {
  std::size_t maxClients = kMaxClients;
  std::vector<uid_t> users;  ///< who may connect
};

/// Serves the clients that come to `listener`, each with a driver of its own, until `signals`
/// ask for the end. Then `closed` is called first, which is to remove the socket's path, and
/// every driver is closed.
///
/// A driver whose client has left is closed beside those that serve. Up to kMaxClients may be
/// on their way out so; beyond that a newcomer waits two seconds for one of them, and is
/// sent away then.
///
/// To be called on the main thread.
void runServer(const DriverModule& module, std::shared_ptr<HostDevBase> base, ServedDirectory& disk,
               Listener& listener, HostSignals& signals, const ServerOptions& options,
               const std::function<void()>& closed);

}  // namespace zor::host
