// What an operation of the drive gives: its value, or the errno for the program
// that asked.
#pragma once

#include <cerrno>

#include "result.h"

namespace zor::remote {

/// A positive error number, as in <cerrno>.
struct Errno {
  int value = EIO;
};

template <class T>
using Outcome = Result<T, Errno>;

}  // namespace zor::remote
