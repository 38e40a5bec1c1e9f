// What an operation of the drive gives: its value, or the errno for the program
// that asked.
#pragma once

#include <cerrno>

#include "client/result.h"

namespace zor::client {

/// A positive error number, as in <cerrno>.
struct Errno {
  int value = EIO;
};

template <class T>
using Outcome = Result<T, Errno>;

}  // namespace zor::client
