#include "drive/requests/compound_request.h"

namespace zor::client {

void CompoundRequest::queryFile(NodeId directory, const std::string& name) {
  const PathLease* path = at(directory, name);
  if (path == nullptr) return;
  add<udisk_stat>(
      [&](auto done) { mHost.disk.attributes(*path, std::move(done)); },
      [&names = mHost.names, directory, name, epoch = mHost.names.linkEpoch()](
          const Result<udisk_stat>& result) { names.learn(directory, name, result, epoch); });
}

void CompoundRequest::queryDirectory(NodeId directory) {
  const PathLease* path = at(directory);
  if (path == nullptr) return;
  add<udisk_stat>([&](auto done) { mHost.disk.attributes(*path, std::move(done)); },
                  [&names = mHost.names, directory](const Result<udisk_stat>& result) {
                    names.learnSelf(directory, result);
                  });
}

}  // namespace zor::client
