// System calls that a file server never makes, refused by the kernel.
#pragma once

namespace zor::host {

/// Refuses, to every thread of this process and to those to come, the system
/// calls that start programs and processes, look into, signal or slow other
/// processes, change mounts and namespaces, open sockets or name their peers,
/// share memory and messages, watch files, make device nodes, control devices and files
/// (`ioctl`, but for a few harmless requests), or reach rarely used parts of the kernel. They fail
/// with EPERM; what is younger than the list fails with ENOSYS.
///
/// REQUIRES: the thread has given up new privileges. Throws std::system_error.
void filterSystemCalls();

}  // namespace zor::host
