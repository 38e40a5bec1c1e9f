// Looking at what a client sends to a host, and stepping in.
#pragma once

#include <sys/socket.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "client/connection.h"
#include "support/host_packets.h"

namespace zor::client::test {

/// Passes one client's packets on to a host, and the answers back.
class PacketRelay {
 public:
  /// Called with each packet before it is passed on; the connection is cut when it gives false.
  using Hook = std::function<bool(const Packet&)>;

  PacketRelay(const std::string& path, std::string host, Hook hook)
      : mListener(listenAt(path)), mHost(std::move(host)), mHook(std::move(hook)) {
    mThread = std::thread([this] { run(); });
  }
  ~PacketRelay() {
    ::shutdown(mListener.get(), SHUT_RDWR);
    mThread.join();
  }

 private:
  void run() {
    const UniqueFd client(::accept(mListener.get(), nullptr, nullptr));
    auto host = connectUnix(mHost, std::chrono::seconds(10));
    if (!client || !host) return;
    std::thread back([&] {
      char bytes[65536];
      for (ssize_t got; (got = ::recv(host->get(), bytes, sizeof bytes, 0)) > 0;) {
        if (::send(client.get(), bytes, static_cast<std::size_t>(got), MSG_NOSIGNAL) < 0) break;
      }
      ::shutdown(client.get(), SHUT_RDWR);
    });
    for (Packet packet; packet = takePacket(client.get()), packet.cmd != 0 && mHook(packet);) {
      ::send(host->get(), packet.bytes.data(), packet.bytes.size(), MSG_NOSIGNAL);
    }
    ::shutdown(client.get(), SHUT_RDWR);
    ::shutdown(host->get(), SHUT_WR);
    back.join();
  }

  const UniqueFd mListener;
  const std::string mHost;
  const Hook mHook;
  std::thread mThread;
};

}  // namespace zor::client::test
