// What a user asks of the host by signals.
#pragma once

#include <optional>
#include <thread>

#include "support/unique_fd.h"

namespace zor::host {

/// While this object lives, SIGINT, SIGTERM and SIGHUP ask for the end, and a second one of
/// them ends the process at once with exit code 1, whatever its threads wait for. SIGUSR1 asks
/// for a report. SIGUSR2 does nothing. A SIGHUP that is ignored at the start stays so (nohup).
///
/// One object at a time, made by the main thread while there is no other.
class HostSignals {
 public:
  /// Throws std::system_error.
  HostSignals();
  ~HostSignals();
  HostSignals(const HostSignals&) = delete;
  HostSignals& operator=(const HostSignals&) = delete;

  /// Leaves the signals to a thread that does nothing else; they interrupt neither the
  /// calling thread any more nor those that it starts later. Throws std::system_error.
  void attend();

  /// Readable when something was asked for.
  int fd() const noexcept;

  struct Asked {
    int end = 0;  ///< the signal, once there was one
    bool report = false;
  };
  /// What was asked for since the last call.
  Asked take() noexcept;

 private:
  std::optional<std::thread> mThread;
  UniqueFd mStop;
};

}  // namespace zor::host
