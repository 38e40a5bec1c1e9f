#include "server.h"

#include <fcntl.h>
#include <malloc.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include "connection.h"
#include "text.h"

namespace zor::host {
namespace {

// How long accepting pauses when the system has no descriptor left for it.
constexpr auto kAcceptPause = std::chrono::milliseconds(200);

class Server {
 public:
  Server(const DriverModule& module, std::shared_ptr<HostDevBase> base, const ServerHooks& hooks)
      : mModule(module),
        mBase(std::move(base)),
        mHooks(hooks),
        mSignals(mContext, SIGINT, SIGTERM) {}

  void run(const std::string& socketPath, const std::string& served) {
    mListener.emplace(socketPath);
    mAcceptor.emplace(mContext, ::fcntl(mListener->fd(), F_DUPFD_CLOEXEC, 0));
    awaitSignal();
    awaitRemote();
    mHooks.listening(*mListener);
    spdlog::info("serving {} on {}", printable(served), printable(socketPath));
    mContext.run();
  }

 private:
  void awaitSignal() {
    mSignals.async_wait([this](const asio::error_code& error, int signal) {
      if (error) return;
      if (mEnding) ::_exit(1);
      spdlog::info("ending on signal {}", signal);
      beginEnd();
    });
  }

  // From here on the loop runs until the connection has finished; the signals
  // are still awaited, but no longer keep the loop alive.
  void beginEnd() {
    mEnding = true;
    mAcceptor.reset();
    mListener.reset();
    mHooks.closed();
    mPause.cancel();
    if (mConnection) {
      awaitSignal();
      mConnection->end();
    } else {
      mContext.stop();
    }
  }

  void awaitRemote() {
    mAcceptor->async_wait(asio::posix::descriptor_base::wait_read,
                          [this](const asio::error_code& error) {
                            if (!error && !mEnding) takeRemote();
                          });
  }

  void takeRemote() {
    // A newcomer that arrives while its predecessor's driver is being closed
    // waits in the socket's queue instead of being sent away.
    if (mConnection && mConnection->remoteGone()) {
      mAcceptDeferred = true;
      return;
    }
    UniqueFd socket(::accept4(mAcceptor->native_handle(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket) {
      admit(std::move(socket));
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      spdlog::error("cannot take in a remote: {}", std::strerror(errno));
      mPause.expires_after(kAcceptPause);
      mPause.async_wait([this](const asio::error_code& error) {
        if (!error && !mEnding) awaitRemote();
      });
      return;
    }
    awaitRemote();
  }

  void admit(UniqueFd socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
      spdlog::warn("refused a remote: its user is unknown: {}", std::strerror(errno));
    } else if (peer.uid != ::geteuid()) {
      spdlog::warn("refused a remote: it runs as user {}", peer.uid);
    } else if (mConnection) {
      spdlog::warn("refused a second remote (process {})", peer.pid);
    } else {
      spdlog::info("a remote connected (process {})", peer.pid);
      mHooks.arrived();
      start(std::move(socket));
    }
  }

  void start(UniqueFd socket) {
    try {
      mConnection = std::make_unique<Connection>(std::move(socket), mModule, mBase);
      mConnection->start([this] { asio::post(mContext, [this] { onFinished(); }); });
    } catch (const std::exception& error) {
      mConnection.reset();
      spdlog::error("cannot serve the remote: {}", error.what());
    }
  }

  void onFinished() {
    mConnection.reset();
    ::malloc_trim(0);  // what a flood took goes back to the system
    if (mEnding) {
      mContext.stop();
    } else if (std::exchange(mAcceptDeferred, false)) {
      awaitRemote();
    }
  }

  const DriverModule& mModule;
  const std::shared_ptr<HostDevBase> mBase;
  const ServerHooks& mHooks;
  asio::io_context mContext{1};
  asio::signal_set mSignals;
  asio::steady_timer mPause{mContext};
  std::optional<Listener> mListener;
  std::optional<asio::posix::stream_descriptor> mAcceptor;
  std::unique_ptr<Connection> mConnection;
  bool mAcceptDeferred = false;  ///< nobody watches the socket until the connection is gone
  bool mEnding = false;
};

}  // namespace

void runServer(const DriverModule& module, std::shared_ptr<HostDevBase> base,
               const std::string& socketPath, const std::string& served, const ServerHooks& hooks) {
  Server(module, std::move(base), hooks).run(socketPath, served);
}

}  // namespace zor::host
