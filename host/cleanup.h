// What the host undoes at its end.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <span>

#include "host/cleanup_process.h"

namespace zor::host {

/// The only owner of what is undone at the end, whichever way that comes. Each step is carried
/// out once: by the host, or by the process that keeps the rights for it.
class Cleanup {
 public:
  enum Step : std::size_t { kRemoveSocket, kUnmount };

  Cleanup() = default;
  /// Carries out what is left, and logs what fails.
  ~Cleanup();
  Cleanup(const Cleanup&) = delete;
  Cleanup& operator=(const Cleanup&) = delete;

  /// Before `splitOff`. What `action` uses must outlive the cleanup.
  void add(Step step, std::function<void()> action) { mActions[step] = std::move(action); }

  /// From now on another process carries out the steps; see CleanupProcess.
  void splitOff(std::span<const int> kept) {
    mProcess.emplace(CleanupProcess::Steps(mActions.begin(), mActions.end()), kept);
  }

  /// Does nothing the second time. Throws std::runtime_error when the step fails.
  void run(Step step);
  /// Logs a failure instead.
  void tryToRun(Step step) noexcept;

 private:
  std::array<std::function<void()>, 2> mActions;
  std::optional<CleanupProcess> mProcess;
};

}  // namespace zor::host
