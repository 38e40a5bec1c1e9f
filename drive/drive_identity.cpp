// Requests carry names, and a name may stand for another file than the one that was
// opened: somebody over there has replaced it.
#include "drive/drive.h"

namespace zor::client {

bool Drive::isIdentified(const Node& node) const {
  if (!node.file || node.place == nullptr) return true;
  const Clock::time_point known = std::max(node.file->identified, node.place->second.confirmed);
  return Clock::now() - known < mOptions.attributeTimeout;
}

/// Asks, beside the read or write that is about to be sent, whether the name of an open
/// file still stands for it, unless that is known. `learn` takes its place away if not.
void Drive::identify(const Node& node) {
  if (isIdentified(node)) return;
  if (mRenaming) {
    mDeferred.emplace_back([this, id = node.id] {
      if (const Node* still = mTree.find(id)) identify(*still);
    });
    return;
  }
  const std::optional<std::string> path = mTree.path(node);
  if (!path) return;
  node.file->identified = Clock::now();
  Burst burst(*this);
  burst.queryFile(*path, node.parent->id, node.place->first);
}

/// What was written since the file was last identified may have gone into another one.
void Drive::noteWrongFile(Node& node) {
  node.file->unsynced = false;
  writeFailed(node, node.file->lostPath);
}

}  // namespace zor::client
