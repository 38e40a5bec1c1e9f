#include <memory>

#include "client/disk.h"
#include "client/exchange.h"

namespace zor::client {

using namespace exchange;
using wire::Command;

namespace {

Result<Listing> decodeListing(Buffer reply, const Strings& strings) {
  wire::Cursor cursor(reply.bytes());
  wire::DirRecord record{};
  if (!decodeEcho(cursor, strings, record) || cursor.rest().size() != record.listingLength) {
    return badReply();
  }
  const std::size_t offset = reply.size() - record.listingLength;
  return Listing::parse(std::move(reply), offset, record.entryCount);
}

}  // namespace

void Disk::attributes(std::string_view path, Callback<udisk_stat> done) {
  ask<udisk_stat>(
      mTransport, Command::kGetFileAttr, wire::FileAttrRecord{}, {std::string(path)},
      std::move(done), [](Buffer reply, const Strings& sent) -> Result<udisk_stat> {
        wire::Cursor cursor(reply.bytes());
        wire::FileAttrRecord record{};
        if (!decodeEcho(cursor, sent, record) || cursor.rest().size() != record.attrLength) {
          return badReply();
        }
        if (record.attrLength == 0) return failed("no such file or directory");
        udisk_stat attributes{};
        if (!cursor.get(attributes) || !cursor.rest().empty()) return badReply();
        return attributes;
      });
}

void Disk::list(std::string_view path, Callback<Listing> done) {
  ask<Listing>(mTransport, Command::kDirRead, wire::DirRecord{}, {std::string(path)},
               std::move(done), [](Buffer reply, const Strings& sent) -> Result<Listing> {
                 Result<Listing> listing = decodeListing(std::move(reply), sent);
                 // Even an empty directory has a terminating byte.
                 if (listing && listing->raw().empty()) {
                   return failed("not a directory, or one that cannot be read");
                 }
                 return listing;
               });
}

void Disk::checkDir(std::string_view path, const Listing& known, Callback<DirCheck> done) {
  if (auto error = checkPath(path)) return fail(mTransport, std::move(done), std::move(*error));
  const Strings strings{std::string(path)};
  wire::DirRecord record{};
  record.listingLength = static_cast<std::uint32_t>(known.raw().size());
  record.entryCount = known.rawCount();
  OutgoingRequest request{Command::kCheckDir, encode(record, strings), {}};
  if (request.payload.size() + known.raw().size() > wire::kMaxPacketLength - kMaxPathLength) {
    return fail(mTransport, std::move(done), refused("the listing is too long to be compared"));
  }
  request.data = shared(Buffer(known.raw()));
  OutgoingRequest fence{Command::kFileFlush, encode(wire::HandleRecord{}, strings), {}};
  mTransport.submitFenced(
      std::move(request),
      [strings, done = std::move(done)](Result<ReplyPayload> reply) {
        if (!reply) {
          if (reply.error().kind != ErrorKind::kUnanswered) return done(std::move(reply.error()));
          return done(DirCheck{});
        }
        Result<Listing> fresh = decodeListing(std::move(*reply), strings);
        if (!fresh) return done(std::move(fresh.error()));
        done(DirCheck{true, std::move(*fresh)});
      },
      std::move(fence));
}

void Disk::statfs(std::string_view path, Callback<udisk_statvfs> done) {
  ask<udisk_statvfs>(mTransport, Command::kGetStatvfs, wire::StatvfsRecord{}, {std::string(path)},
                     std::move(done),
                     [](Buffer reply, const Strings& sent) -> Result<udisk_statvfs> {
                       wire::Cursor cursor(reply.bytes());
                       wire::StatvfsRecord record{};
                       if (!decodeEcho(cursor, sent, record) ||
                           record.recordLength != wire::wireSize<udisk_statvfs>() ||
                           cursor.rest().size() % wire::wireSize<udisk_statvfs>() != 0) {
                         return badReply();
                       }
                       if (cursor.rest().empty())
                         return failed("the host does not report the size of this disk");
                       udisk_statvfs sizes{};
                       cursor.get(sizes);
                       // What a host fills in when it cannot reach the disk.
                       if (sizes == udisk_statvfs{}) return unreadable();
                       return sizes;
                     });
}

void Disk::xattr(std::string_view path, std::string_view name, Callback<std::uint64_t> done) {
  if (auto error = checkPath(path)) return fail(mTransport, std::move(done), std::move(*error));
  if (name.size() > 0xffff || name.find('\0') != std::string_view::npos) {
    return fail(mTransport, std::move(done), refused("the attribute's name cannot be sent"));
  }
  Strings strings{std::string(path), std::string(name)};
  OutgoingRequest request{Command::kGetXattr, encode(wire::XattrRecord{}, strings), {}};
  mTransport.submit(
      std::move(request),
      decoding<std::uint64_t>(
          std::move(done), [strings = std::move(strings)](Buffer reply) -> Result<std::uint64_t> {
            wire::Cursor cursor(reply.bytes());
            wire::XattrRecord record{};
            cursor.get(record);
            // The path is not repeated, although its length is.
            const wire::Bytes echoed = cursor.take(strings[1].size());
            if (!cursor.ok() || !cursor.rest().empty() || record.pathLength != strings[0].size() ||
                record.nameLength != strings[1].size() ||
                std::memcmp(echoed.data(), strings[1].data(), echoed.size()) != 0) {
              return badReply();
            }
            return record.valueSize;
          }));
}

Result<udisk_stat> Disk::attributes(std::string_view path) {
  if (auto error = checkPath(path)) return std::move(*error);
  const auto found = std::make_shared<Result<udisk_stat>>(Error{});
  return await<udisk_stat>([&](Callback<udisk_stat> done) {
    attributes(path, [found](Result<udisk_stat> answer) { *found = std::move(answer); });
    // Both queries are refused in the same way when the disk fails.
    attributes("/", [found, done = std::move(done)](const Result<udisk_stat>& root) {
      const auto isRefusal = [](const auto& answer) {
        return !answer && answer.error().kind == ErrorKind::kFailed;
      };
      done(isRefusal(*found) && isRefusal(root) ? unreadable() : std::move(*found));
    });
  });
}

Result<Listing> Disk::list(std::string_view path) {
  return await<Listing>([&](auto done) { list(path, std::move(done)); });
}

Result<DirCheck> Disk::checkDir(std::string_view path, const Listing& known) {
  return await<DirCheck>([&](auto done) { checkDir(path, known, std::move(done)); });
}

Result<udisk_statvfs> Disk::statfs(std::string_view path) {
  return await<udisk_statvfs>([&](auto done) { statfs(path, std::move(done)); });
}

Result<std::uint64_t> Disk::xattr(std::string_view path, std::string_view name) {
  return await<std::uint64_t>([&](auto done) { xattr(path, name, std::move(done)); });
}

}  // namespace zor::client
