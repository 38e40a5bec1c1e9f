// What is left to do at the end and takes rights that the host gives up.
#pragma once

#include <sys/types.h>

#include <functional>
#include <span>
#include <vector>

#include "support/unique_fd.h"

namespace zor::host {

/// A process that keeps the rights of its parent and does a fixed list of steps
/// for it, each once and on demand. Of what it is sent it uses the number of a step only. It ends
/// with this object, or with the parent, and then leaves undone what was not demanded. It ignores
/// the signals that end the host, and lets go of all files but the standard ones.
class CleanupProcess {
 public:
  using Steps = std::vector<std::function<void()>>;

  /// Splits the process off. `steps` run there, on its copy of everything, and
  /// may use the descriptors `kept`. To be called while there is one thread.
  /// Throws std::system_error.
  CleanupProcess(Steps steps, std::span<const int> kept);
  /// Waits for the process to end.
  ~CleanupProcess();
  CleanupProcess(const CleanupProcess&) = delete;
  CleanupProcess& operator=(const CleanupProcess&) = delete;

  /// Has a step done and waits for it. Throws std::runtime_error with the text
  /// of what it threw, or when the process is not there any more.
  void run(std::size_t step);

 private:
  UniqueFd mEnd;
  pid_t mProcess = -1;
};

}  // namespace zor::host
