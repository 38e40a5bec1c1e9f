// Going to the background.
#pragma once

#include <optional>

#include "support/unique_fd.h"

namespace zor::client::mount {

/// A background process works in a child from the beginning, because threads do not
/// survive a fork. The parent stays until the child is ready or has failed.
class Background {
 public:
  /// To be called before there are threads. In the parent it returns when the
  /// outcome is known: the code to exit with. In the child it returns nothing.
  std::optional<int> enter();

  /// Lets go of the terminal and of the parent. False when this is impossible or when
  /// the parent is gone. Without `enter`, does nothing.
  bool ready();

  /// The parent exits with `code`. The child can print the reason on standard error
  /// before.
  void failed(int code);

 private:
  bool sendToParent(int code);

  UniqueFd mParent;
};

}  // namespace zor::client::mount
