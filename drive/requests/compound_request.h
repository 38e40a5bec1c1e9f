// Requests that travel together: a change and the queries behind it, in one round trip.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "drive/requests/disk_requests.h"
#include "drive/requests/pending_replies.h"

namespace zor::client {

/// What making requests takes. All of it is guarded by the mutex.
struct HostAccess {
  Mutex& mutex;
  NameCache& names;
  PathGate& gate;
  DiskRequests& disk;
  std::function<void()> onReply;  ///< the host answered, and did not refuse; must not wait
};

/// Runs `update(result)` with the mutex held when the reply comes. What replies teach goes
/// into the cache so, in the order in which the host served the requests: what is known
/// never goes back to an older state.
template <class T, class Update>
Callback<T> withMutex(const HostAccess& host, Update update) {
  return [&host, update = std::move(update)](Result<T> result) mutable {
    const MutexLock lock(host.mutex);
    update(result);
    if (result) host.onReply();
  };
}

/// All members are to be called with the mutex held. The leases are given back by `wait`
/// and at the end.
class CompoundRequest {
 public:
  /// `rename`: the one that this is part of, if any.
  explicit CompoundRequest(const HostAccess& host, const PathGate::Rename* rename = nullptr)
      : mHost(host), mRename(rename) {}

  CompoundRequest(const CompoundRequest&) = delete;
  CompoundRequest& operator=(const CompoundRequest&) = delete;

  /// May wait for a rename, and release the mutex. Null when there is no such path.
  const PathLease* at(NodeId node) {
    return keep(mRename != nullptr ? mRename->lease(node) : mHost.gate.lease(node));
  }
  const PathLease* at(NodeId directory, std::string_view name) {
    return keep(mRename != nullptr ? mRename->lease(directory, name)
                                   : mHost.gate.lease(directory, name));
  }

  /// Makes a request by `start(callback)`; `update(result)` runs when it is answered, with
  /// the mutex.
  template <class T, class Start, class Update>
  void add(Start start, Update update) {
    mPending->add();
    start(withMutex<T>(mHost,
                       [pending = mPending, update = std::move(update)](Result<T>& result) mutable {
                         update(result);
                         pending->arrived();
                       }));
  }

  /// Puts the attributes of a file, or of a directory, into the cache.
  void queryFile(NodeId directory, const std::string& name);
  void queryDirectory(NodeId directory);

  void wait() {
    mHost.mutex.assertHeld();
    mLeases.clear();
    PathGate::assertNoLeaseHere();
    mPending->wait(mHost.mutex);
  }

  /// The reply to one more request, and to all before it.
  template <class T, class Start, class Update>
  Result<T> get(Start start, Update update) {
    std::optional<Result<T>> reply;
    add<T>(std::move(start), [&reply, &update](Result<T>& result) {
      update(result);
      reply.emplace(std::move(result));
    });
    wait();
    return std::move(*reply);
  }
  template <class T, class Start>
  Result<T> get(Start start) {
    return get<T>(std::move(start), [](Result<T>&) {});
  }

 private:
  const PathLease* keep(std::optional<PathLease> lease) {
    return lease ? &mLeases.emplace_back(std::move(*lease)) : nullptr;
  }

  const HostAccess& mHost;
  const PathGate::Rename* const mRename;
  std::deque<PathLease> mLeases;
  std::shared_ptr<PendingReplies> mPending = std::make_shared<PendingReplies>();
};

}  // namespace zor::client
