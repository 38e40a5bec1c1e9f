#include "host/server.h"

#include <fcntl.h>
#include <malloc.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <asio.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <optional>
#include <utility>

#include "host/client_connection.h"
#include "support/printable.h"

namespace zor::host {
namespace {

// How long accepting pauses when the system has no descriptor left for it.
constexpr auto kAcceptPause = std::chrono::milliseconds(200);
// How long a newcomer waits for drivers that are being closed.
constexpr auto kClosingTimeout = std::chrono::seconds(2);
// Drivers that are still there so long after the end has begun are worth a line.
constexpr auto kEndTimeout = std::chrono::seconds(3);

class Server {
 public:
  Server(const DriverModule& module, std::shared_ptr<HostDevBase> base, ServedDirectory& disk,
         Listener& listener, HostSignals& signals, const ServerOptions& options,
         const std::function<void()>& closed)
      : mModule(module),
        mBase(std::move(base)),
        mDisk(disk),
        mOptions(options),
        mHostSignals(signals),
        mClosed(closed),
        mListener(listener),
        mSignals(mContext, ::fcntl(signals.fd(), F_DUPFD_CLOEXEC, 0)),
        mAcceptor(std::in_place, mContext, ::fcntl(listener.fd(), F_DUPFD_CLOEXEC, 0)) {}

  void run() {
    awaitSignal();
    awaitClient();
    mContext.run();
  }

 private:
  using Wait = asio::posix::descriptor_base;
  using Clock = asio::steady_timer::clock_type;

  void awaitSignal() {
    mSignals.async_wait(Wait::wait_read, [this](const asio::error_code& error) {
      if (error) return;
      const HostSignals::Asked asked = mHostSignals.take();
      if (asked.report) report();
      if (asked.end != 0 && !mEnding) beginEnd(asked.end);
      awaitSignal();
    });
  }

  // From here on the loop runs until the last connection has finished.
  void beginEnd(int signal) {
    mEnding = true;
    spdlog::info("ending on signal {}", signal);
    mAcceptor.reset();
    mListener.close();
    mClosed();
    mPause.cancel();
    for (ClientConnection& connection : mConnections) connection.end();
    if (mConnections.empty()) return mContext.stop();
    mPause.expires_after(kEndTimeout);
    mPause.async_wait([this](const asio::error_code& error) {
      if (error) return;
      spdlog::warn("waiting for the requests of {} clients; a second signal ends at once",
                   mConnections.size());
    });
  }

  // Through the level of the log, as it was asked for.
  template <class... Arguments>
  static void print(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    spdlog::log(std::max(spdlog::level::info, spdlog::get_level()), format,
                std::forward<Arguments>(arguments)...);
  }

  void report() {
    ClientConnection::Metrics all = mLeft;
    for (const ClientConnection& connection : mConnections) all += connection.metrics();
    print(
        "served {} clients, {} requests, {} bytes received, {} bytes sent; now {} clients, {} "
        "drivers being closed, {} requests waiting, {} bytes in memory",
        mCount, all.packets, all.received, all.sent, clients(), mConnections.size() - clients(),
        all.waitingPackets, all.waitingBytes);
    for (const ClientConnection& connection : mConnections) {
      const ClientConnection::Metrics own = connection.metrics();
      print(
          "{} process {} of user {}: {} requests, {} bytes received, {} bytes sent, {} requests "
          "waiting, {} bytes in memory",
          connection.clientGone() ? "left:" : "connected:", connection.client().process,
          connection.client().user, own.packets, own.received, own.sent, own.waitingPackets,
          own.waitingBytes);
    }
  }

  // How many are served; the others' drivers are being closed.
  std::size_t clients() const {
    return static_cast<std::size_t>(
        std::count_if(mConnections.begin(), mConnections.end(),
                      [](const ClientConnection& connection) { return !connection.clientGone(); }));
  }
  bool manyClosing() const { return mConnections.size() - clients() >= kMaxClients; }

  void awaitClient() {
    mAcceptor->async_wait(Wait::wait_read, [this](const asio::error_code& error) {
      if (!error && !mEnding) takeClient();
    });
  }
  void awaitClientAfter(Clock::duration pause) {
    mPause.expires_after(pause);
    mPause.async_wait([this](const asio::error_code&) {
      if (!mEnding) takeClient();
    });
  }

  // A newcomer that has to wait does so in the socket's queue.
  void takeClient() {
    if (!manyClosing()) {
      mWaitsUntil.reset();
    } else {
      const auto now = Clock::now();
      if (!mWaitsUntil) mWaitsUntil = now + kClosingTimeout;
      if (now < *mWaitsUntil) return awaitClientAfter(*mWaitsUntil - now);
    }
    UniqueFd socket(::accept4(mAcceptor->native_handle(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket) {
      admit(std::move(socket));
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      spdlog::error("cannot take in a client: {}", std::strerror(errno));
      return awaitClientAfter(kAcceptPause);
    }
    awaitClient();
  }

  void admit(UniqueFd socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    const auto& users = mOptions.users;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
      spdlog::warn("refused a client: its user is unknown: {}", std::strerror(errno));
    } else if (std::find(users.begin(), users.end(), peer.uid) == users.end()) {
      spdlog::warn("refused a client (process {}): it runs as user {}, who may not connect",
                   peer.pid, peer.uid);
    } else if (clients() >= mOptions.maxClients) {
      spdlog::warn(
          "refused a client (process {}): {} are connected, which is the limit "
          "(--max-clients)",
          peer.pid, clients());
    } else if (mWaitsUntil) {
      spdlog::warn(
          "refused a client (process {}): {} clients left requests behind that are still "
          "being served; does the disk hang?",
          peer.pid, mConnections.size() - clients());
    } else {
      spdlog::info("a client connected (process {})", peer.pid);
      start(std::move(socket), {peer.pid, peer.uid});
    }
  }

  void start(UniqueFd socket, ClientConnection::Client client) {
    try {
      mConnections.emplace_back(std::move(socket), client, mModule, mDisk, mBase, mShared);
    } catch (const std::exception& error) {
      spdlog::error("cannot serve the client: {}", error.what());
      return;
    }
    const auto connection = std::prev(mConnections.end());
    try {
      connection->start([this, connection] {
        asio::post(mContext, [this, connection] { onFinished(connection); });
      });
      ++mCount;
    } catch (const std::exception& error) {
      mConnections.erase(connection);
      spdlog::error("cannot serve the client: {}", error.what());
    }
  }

  void onFinished(std::list<ClientConnection>::iterator connection) {
    ClientConnection::Metrics metrics = connection->metrics();
    metrics.waitingPackets = metrics.waitingBytes = 0;
    mLeft += metrics;
    mConnections.erase(connection);
    ::malloc_trim(0);  // what a flood took goes back to the system
    if (mEnding && mConnections.empty()) mContext.stop();
    // Who waits for this is taken in at once.
    if (!mEnding && mWaitsUntil && !manyClosing()) mPause.cancel();
  }

  const DriverModule& mModule;
  const std::shared_ptr<HostDevBase> mBase;
  ServedDirectory& mDisk;
  const ServerOptions& mOptions;
  HostSignals& mHostSignals;
  const std::function<void()>& mClosed;
  Listener& mListener;
  asio::io_context mContext{1};
  asio::posix::stream_descriptor mSignals;
  std::optional<asio::posix::stream_descriptor> mAcceptor;
  asio::steady_timer mPause{mContext};
  SharedBudget mShared;
  std::list<ClientConnection> mConnections;
  ClientConnection::Metrics mLeft;  ///< of those that are gone
  std::size_t mCount = 0;
  /// Newcomers wait so long for drivers that are being closed.
  std::optional<Clock::time_point> mWaitsUntil;
  bool mEnding = false;
};

}  // namespace

void runServer(const DriverModule& module, std::shared_ptr<HostDevBase> base, ServedDirectory& disk,
               Listener& listener, HostSignals& signals, const ServerOptions& options,
               const std::function<void()>& closed) {
  Server(module, std::move(base), disk, listener, signals, options, closed).run();
}

}  // namespace zor::host
