// Giving up what serving a directory does not need.
#pragma once

#include <string>

namespace zor::host {

enum class SandboxMode {
  kAuto,      ///< as much as the kernel has
  kRequired,  ///< all of it, or nothing is served
};

/// Gives up, for good: new privileges, all capabilities but those on files,
/// every file outside of `directory` (and with `readOnly` the changing of those
/// inside), and the system calls that no file server makes. Tells in one line
/// of the log what holds. Whether files outside are out of reach.
///
/// To be called on the main thread while there is no other: threads made later
/// inherit it all. Throws std::runtime_error when `mode` requires all and
/// something does not hold; what was given up before stays so.
bool confine(SandboxMode mode, const std::string& directory, bool readOnly);

}  // namespace zor::host
