// Access to files, limited by the kernel's Landlock.
#pragma once

#include <string>

namespace zor::host {

/// Below this version a file outside can still be cut off by its path.
inline constexpr int kCompleteLandlock = 3;

/// Limits the calling thread, and the threads that it makes afterwards, to what
/// lies below `directory` at the time of access, read-only or not. Nothing
/// there can be executed. Outside, only the random device can be read; what is
/// already open stays usable, and attributes are not covered. Where the kernel
/// knows how, TCP, abstract sockets, signals to other processes and the control
/// of devices are refused, too.
///
/// The limit is tied to the directory itself: a file system that is mounted over
/// it later is outside.
///
/// REQUIRES: the thread has given up new privileges. Returns the kernel's
/// version of Landlock. Throws std::system_error.
int restrictFiles(const std::string& directory, bool readOnly);

}  // namespace zor::host
