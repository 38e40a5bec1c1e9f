// One remote, from its arrival to its leaving.
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "host_device.h"
#include "module_loader.h"
#include "reception.h"
#include "remote_link.h"
#include "support/unique_fd.h"

namespace zor::host {

/// Opens a driver for a remote on a thread of its own, and has its packets
/// delivered to it. When the remote leaves, sends a malformed packet, or `end` is
/// called, the driver is closed and destroyed.
///
/// What a remote sent whole before it closed its side is served before the
/// driver is closed, as long as replies can still be delivered: it may have
/// sent writes that no reply confirms.
class Connection {
 public:
  /// `module` must outlive the connection.
  Connection(UniqueFd socket, const DriverModule& module, std::shared_ptr<HostDevBase> base)
      : mModule(module),
        mLink(std::move(socket)),
        mReception(mLink),
        mDevice(mLink, mReception, std::move(base)) {}
  /// Ends the connection and waits for its thread.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Starts the thread. `finished` is called on it as its last act, once the
  /// driver is gone. Throws std::system_error when there is no thread to be had.
  void start(std::function<void()> finished);

  /// Makes the thread finish soon. Any thread.
  void end() noexcept { mLink.end(); }

  /// Whether the remote is gone, although the driver may still be there.
  bool remoteGone() const noexcept { return mLink.ended() || mLink.remoteGone(); }

 private:
  void run() noexcept;
  void serve(ZorDriver& driver);

  const DriverModule& mModule;
  RemoteLink mLink;
  Reception mReception;
  HostDevice mDevice;
  std::thread mThread;
};

}  // namespace zor::host
