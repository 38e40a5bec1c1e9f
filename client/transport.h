// The seam between the disk's operations and the connection that carries them.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "client/buffer.h"
#include "client/result.h"
#include "protocol/commands.h"

namespace zor::client {

/// A request without its identity. On the wire `payload` and `data` follow each
/// other; they are apart so that large data need not be copied, and `data` is
/// shared so that a request can be kept while it travels.
struct OutgoingRequest {
  wire::Command command{};
  Buffer payload;
  std::shared_ptr<const Buffer> data{};  ///< null when there is none
};

inline std::shared_ptr<const Buffer> shared(Buffer data) {
  return std::make_shared<const Buffer>(std::move(data));
}

/// The payload of the packet that answers a request.
using ReplyPayload = Buffer;

/// Takes the outcome of a request, exactly once. Must not throw, must not block
/// and must not wait for another request: nothing else completes meanwhile.
using Completion = std::function<void(Result<ReplyPayload>)>;

/// Carries requests, many at a time. The host serves them in the order in which
/// they were submitted.
///
/// All members may be called from any thread, from completions too, and never
/// block. Completions and tasks run one at a time, on one thread that belongs
/// to the transport, never inside the call that handed them over.
class Transport {
 public:
  virtual ~Transport() = default;

  /// The caller bounds the bytes that it has in flight: requests that the host
  /// does not take yet are kept in memory. As requests are served in order, one
  /// gets ErrorKind::kUnanswered when the answer to a later one comes first.
  virtual void submit(OutgoingRequest request, Completion done) = 0;

  /// For a request that the host may pass over in silence: sends `fence`, which
  /// must be one that is always answered, right behind it. The fence's own
  /// answer is dropped.
  virtual void submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) = 0;

  /// Runs `task` on the thread of the completions.
  virtual void post(std::function<void()> task) = 0;
};

}  // namespace zor::client
