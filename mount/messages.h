// What the program says to people.
#pragma once

#include <string>
#include <string_view>

namespace zor::client::mount {

/// Prints each line of `text` on standard error, or gives it to the system's
/// log after `useSystemLog`. From any thread.
void report(std::string_view text);

/// The same, but always for the system's log, too: for what must not be missed.
void reportLoss(std::string_view text);

/// From now on there is no terminal.
void useSystemLog();

/// Sends what libfuse says the same way. To be called before there are threads.
void adoptFuseMessages();

/// Keeps what libfuse says while it exists. For one thread at a time.
class FuseMessages {
 public:
  FuseMessages();
  ~FuseMessages();

  FuseMessages(const FuseMessages&) = delete;
  FuseMessages& operator=(const FuseMessages&) = delete;

  /// As a clause, without libfuse's prefix and line ends.
  std::string text() const;
};

}  // namespace zor::client::mount
