// How the disk's operations make requests and take answers apart. Internal.
#pragma once

#include <future>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/disk.h"
#include "protocol/codec.h"
#include "protocol/records.h"

namespace zor::client::exchange {

using Strings = std::vector<std::string>;

inline Error badReply() {
  return {ErrorKind::kBadReply, "the host's answer contradicts itself or the request"};
}

inline Error failed(std::string message) { return {ErrorKind::kFailed, std::move(message)}; }

/// A host answers in the same way when a name is missing.
inline Error unreadable() {
  return {ErrorKind::kUnreadable, "the disk cannot be read; was it pulled out?"};
}

inline Error refused(std::string message) { return {ErrorKind::kRefused, std::move(message)}; }

/// Why the host would not serve a request with this path.
inline std::optional<Error> checkPath(std::string_view path) {
  if (path.empty() || path.front() != '/') return refused("the path does not begin with \"/\"");
  if (path.size() > kMaxPathLength) return refused("the path is too long");
  if (path.find('\0') != std::string_view::npos) return refused("the path holds a zero byte");
  return std::nullopt;
}

/// The record with the strings' lengths filled in, and the strings.
template <class Record>
Buffer encode(Record record, const Strings& strings) {
  std::size_t size = wire::wireSize<Record>();
  std::size_t next = 0;
  std::apply(
      [&](auto... length) {
        ((record.*length =
              static_cast<std::remove_cvref_t<decltype(record.*length)>>(strings[next++].size()),
          size += strings[next - 1].size()),
         ...);
      },
      Record::kStrings);
  Buffer payload(size);
  std::byte* at = wire::encodeAt(payload.data(), record);
  for (const std::string& string : strings) {
    std::memcpy(at, string.data(), string.size());
    at += string.size();
  }
  return payload;
}

/// Reads the record and the strings, which must be those of the request.
template <class Record>
bool decodeEcho(wire::Cursor& cursor, const Strings& strings, Record& record) {
  if (!cursor.get(record)) return false;
  std::size_t next = 0;
  return std::apply(
      [&](auto... length) {
        return (... && [&] {
          const std::string& sent = strings[next++];
          if (record.*length != sent.size()) return false;
          const wire::Bytes bytes = cursor.take(sent.size());
          return cursor.ok() && std::memcmp(bytes.data(), sent.data(), sent.size()) == 0;
        }());
      },
      Record::kStrings);
}

template <class T>
void fail(Transport& transport, Callback<T> done, Error error) {
  transport.post([done = std::move(done), error = std::move(error)] { done(error); });
}

/// The completion that decodes an answer and passes the outcome on.
template <class T, class Decode>
Completion decoding(Callback<T> done, Decode decode) {
  return [done = std::move(done), decode = std::move(decode)](Result<ReplyPayload> reply) {
    if (reply) {
      done(decode(std::move(*reply)));
    } else {
      done(std::move(reply.error()));
    }
  };
}

/// Submits record and strings (which must be paths) and decodes the answer with
/// `decode(Buffer reply, const Strings& strings)`.
template <class T, class Record, class Decode>
void ask(Transport& transport, wire::Command command, const Record& record, Strings strings,
         Callback<T> done, Decode decode) {
  for (const std::string& path : strings) {
    if (auto error = checkPath(path)) return fail(transport, std::move(done), std::move(*error));
  }
  OutgoingRequest request{command, encode(record, strings), {}};
  transport.submit(std::move(request),
                   decoding<T>(std::move(done), [strings = std::move(strings),
                                                 decode = std::move(decode)](Buffer reply) {
                     return Result<T>(decode(std::move(reply), strings));
                   }));
}

/// The same for answers that are an echo whose outcome `validate(record)` reads.
template <class Record, class Validate>
void change(Transport& transport, wire::Command command, const Record& record, Strings strings,
            Callback<Unit> done, Validate validate) {
  ask<Unit>(transport, command, record, std::move(strings), std::move(done),
            [validate = std::move(validate)](Buffer reply, const Strings& sent) -> Status {
              wire::Cursor cursor(reply.bytes());
              Record echo{};
              if (!decodeEcho(cursor, sent, echo) || !cursor.rest().empty()) return badReply();
              return validate(echo);
            });
}

/// Waits for what `start(callback)` will report.
template <class T, class Start>
Result<T> await(Start start) {
  auto promise = std::make_shared<std::promise<Result<T>>>();
  auto future = promise->get_future();
  start(Callback<T>([promise](Result<T> result) { promise->set_value(std::move(result)); }));
  return future.get();
}

}  // namespace zor::client::exchange
