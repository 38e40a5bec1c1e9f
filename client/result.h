// What an operation gives: its value, or why there is none.
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace zor::client {

enum class ErrorKind {
  kFailed,      ///< the host answered that the operation failed; it gives no reason
  kUnreadable,  ///< the host answered, and cannot read the disk: nothing is known of the name
  kRefused,     ///< not sent: the arguments cannot be carried by a request
  kLinkLost,    ///< the connection broke; whether the host acted is unknown
  kBadReply,    ///< the answer contradicts itself or its request
  kUnanswered,  ///< the host served later requests without answering this one
};

struct Error {
  ErrorKind kind = ErrorKind::kFailed;
  std::string message;  ///< a clause for people, without a path and without a full stop
};

/// The value of an operation that has none.
struct Unit {};

template <class T, class E = Error>
class [[nodiscard]] Result {
 public:
  Result(T value) : mState(std::in_place_index<0>, std::move(value)) {}
  Result(E error) : mState(std::in_place_index<1>, std::move(error)) {}

  bool ok() const noexcept { return mState.index() == 0; }
  explicit operator bool() const noexcept { return ok(); }

  /// REQUIRES: ok().
  T& operator*() { return std::get<0>(mState); }
  const T& operator*() const { return std::get<0>(mState); }
  T* operator->() { return &std::get<0>(mState); }
  const T* operator->() const { return &std::get<0>(mState); }

  /// REQUIRES: !ok().
  E& error() { return std::get<1>(mState); }
  const E& error() const { return std::get<1>(mState); }

 private:
  std::variant<T, E> mState;
};

using Status = Result<Unit>;

}  // namespace zor::client
