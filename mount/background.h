// Going to the background.
#pragma once

#include <optional>

#include "support/unique_fd.h"

namespace zor::client::mount {

/// A process that is to have no terminal works in a child from the beginning,
/// because threads do not survive a fork. The parent stays until the child is
/// ready or has failed.
class Background {
 public:
  /// To be called before there are threads. In the parent it returns when the
  /// outcome is known: the code to exit with. In the child it returns nothing.
  std::optional<int> enter();

  /// Lets go of the terminal and of the parent. False when nobody waits for
  /// this any more, or when it is impossible. Without `enter`, does nothing.
  bool ready();

  /// The parent will exit with `code` when the child ends. Until then the child
  /// can say why on standard error.
  void failed(int code);

 private:
  bool tell(int code);

  UniqueFd mParent;
};

}  // namespace zor::client::mount
