// One client, from its arrival to its leaving.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "host/host_device.h"
#include "host/io/client_stream.h"
#include "host/io/receiver.h"
#include "host/module_loader.h"
#include "host/served_directory.h"
#include "support/unique_fd.h"

namespace zor::host {

/// Opens a driver for a client on a thread of its own, and has its packets
/// delivered to it, provided that the disk is there. When the client leaves, sends a malformed
/// packet, or `end` is called, the driver is closed and destroyed.
///
/// What a client sent whole before it closed its side is served before the
/// driver is closed, as long as replies can still be delivered: it may have
/// sent writes that no reply confirms.
class ClientConnection {
 public:
  struct Client {
    pid_t process;
    uid_t user;
  };
  /// What it served, in packets and bytes.
  struct Metrics {
    std::uint64_t packets = 0, received = 0, sent = 0;
    std::size_t waitingPackets = 0, waitingBytes = 0;

    Metrics& operator+=(const Metrics& other) noexcept;
  };

  /// `module`, `disk` and `shared` must outlive the connection.
  ClientConnection(UniqueFd socket, Client client, const DriverModule& module,
                   ServedDirectory& disk, std::shared_ptr<HostDevBase> base, SharedBudget& shared)
      : mClient(client),
        mModule(module),
        mDisk(disk),
        mStream(std::move(socket), shared),
        mReceiver(mStream),
        mDevice(mStream, mReceiver, std::move(base)) {}
  /// Ends the connection and waits for its thread.
  ~ClientConnection();
  ClientConnection(const ClientConnection&) = delete;
  ClientConnection& operator=(const ClientConnection&) = delete;

  /// Starts the thread. `finished` is called on it as its last act, once the
  /// driver is gone. Throws std::system_error when there is no thread to be had.
  void start(std::function<void()> finished);

  /// Makes the thread finish soon. Any thread.
  void end() noexcept { mStream.end(); }

  /// Whether the client is gone, although the driver may still be there.
  bool clientGone() const noexcept { return mStream.ended() || mStream.clientGone(); }

  const Client& client() const noexcept { return mClient; }
  Metrics metrics() const noexcept;

 private:
  void run() noexcept;
  void serve(ZorDriver& driver);
  bool servesTheDisk(ZorDriver& driver);

  const Client mClient;
  const DriverModule& mModule;
  ServedDirectory& mDisk;
  ClientStream mStream;
  Receiver mReceiver;
  HostDevice mDevice;
  std::thread mThread;
};

}  // namespace zor::host
