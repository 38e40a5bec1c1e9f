#include "drive/data/identity.h"

#include <algorithm>

namespace zor::client {

bool isIdentified(const NameCache& names, const Node& node) {
  if (!node.open || node.place == nullptr) return true;
  const Clock::time_point known = std::max(node.open->identified, node.entry().confirmed);
  return names.now() - known < names.lifetime();
}

void identify(const HostAccess& host, const Node& node) {
  if (isIdentified(host.names, node)) return;
  node.open->identified = host.names.now();
  host.gate.whenOpen([&host, id = node.id] {
    const Node* still = host.names.find(id);
    if (still == nullptr || still->place == nullptr) return;
    CompoundRequest request(host);
    request.queryFile(still->parent->id, still->name());
  });
}

}  // namespace zor::client
