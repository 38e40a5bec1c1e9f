// The program's messages: on standard error in the foreground, in the system's log in the
// background. Foreign text is escaped (support/printable.h).
#pragma once

#include <string>
#include <string_view>

namespace zor::client::mount {

/// Prints each line of `text`. From any thread.
void report(std::string_view text);

/// The same for lost data: it goes to the system's log even in the foreground.
void reportLoss(std::string_view text);

/// From now on there is no terminal.
void useSystemLog();

/// Sends libfuse's messages the same way. To be called before there are threads.
void adoptFuseMessages();

/// Captures libfuse's messages while it exists. For one thread at a time.
class FuseMessages {
 public:
  FuseMessages();
  ~FuseMessages();

  FuseMessages(const FuseMessages&) = delete;
  FuseMessages& operator=(const FuseMessages&) = delete;

  /// As a clause, without libfuse's prefix and line ends.
  std::string text() const;

 private:
  std::string mText;
};

}  // namespace zor::client::mount
