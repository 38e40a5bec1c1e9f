// Reading and writing of file contents.
#include <algorithm>
#include <limits>

#include "client/disk.h"
#include "client/exchange.h"

namespace zor::client {

using namespace exchange;
using wire::Command;

namespace {

/// The outcome of a write whose request declared `size` bytes.
Status validateWrite(const wire::FileWriteRecord& echo, std::size_t size) {
  if (echo.file_buf_length == 0) return failed("the write failed");
  if (static_cast<std::size_t>(echo.file_buf_length) != size) return badReply();
  return Unit{};
}

void submitWrite(Transport& transport, std::string_view path, wire::FileWriteRecord record,
                 Buffer data, Callback<Unit> done) {
  if (auto error = checkPath(path)) return fail(transport, std::move(done), std::move(*error));
  if (data.size() > kMaxWriteSize) {
    return fail(transport, std::move(done), refused("too much data for one write"));
  }
  if (data.empty()) {
    return transport.post([done = std::move(done)] { done(Unit{}); });
  }
  const std::size_t size = data.size();
  record.file_buf_length = static_cast<std::int32_t>(size);
  Strings strings{std::string(path)};
  OutgoingRequest request{Command::kFileWrite, encode(record, strings), shared(std::move(data))};
  transport.submit(
      std::move(request),
      decoding<Unit>(std::move(done), [strings = std::move(strings), size](Buffer reply) -> Status {
        wire::Cursor cursor(reply.bytes());
        wire::FileWriteRecord echo{};
        if (!decodeEcho(cursor, strings, echo) || !cursor.rest().empty()) {
          return badReply();
        }
        return validateWrite(echo, size);
      }));
}

}  // namespace

std::uint64_t batchCost(const FilePiece& piece) {
  return wire::wireSize<wire::FileReadRecord>() + piece.path.size() + std::uint64_t{piece.size};
}

void Disk::read(std::string_view path, std::int64_t offset, std::uint32_t size,
                Callback<FileData> done) {
  wire::FileReadRecord record{};
  record.offset = offset;
  record.size = size;
  ask<FileData>(mTransport, Command::kFileRead, record, {std::string(path)}, std::move(done),
                [offset, size](Buffer reply, const Strings& sent) -> Result<FileData> {
                  wire::Cursor cursor(reply.bytes());
                  wire::FileReadRecord echo{};
                  if (!decodeEcho(cursor, sent, echo) || echo.offset != offset ||
                      echo.size > size || cursor.rest().size() != echo.size) {
                    return badReply();
                  }
                  const std::size_t begin = reply.size() - echo.size;
                  return FileData(std::move(reply), begin);
                });
}

void Disk::readSmallFiles(const std::vector<FilePiece>& files, Callback<FilePieces> done) {
  std::uint64_t cost = 0;
  for (const FilePiece& file : files) {
    if (auto error = checkPath(file.path)) {
      return fail(mTransport, std::move(done), std::move(*error));
    }
    cost += batchCost(file);
  }
  if (cost > kMaxBatchSize) {
    return fail(mTransport, std::move(done), refused("the batch is too large"));
  }
  OutgoingRequest request{Command::kSmallFileRead, {}, {}};
  request.payload =
      Buffer(wire::encoded(wire::SmallFileRecord{static_cast<std::uint32_t>(files.size())}));
  Buffer records;
  for (const FilePiece& file : files) {
    records.append(wire::encoded(wire::FileReadRecord{
        file.offset, 0, file.size, static_cast<std::uint32_t>(file.path.size()), 0}));
    records.append(std::as_bytes(std::span(file.path)));
  }
  request.data = shared(std::move(records));
  mTransport.submit(
      std::move(request),
      decoding<FilePieces>(std::move(done), [files](Buffer reply) -> Result<FilePieces> {
        FilePieces result;
        wire::Cursor cursor(reply.bytes());
        wire::SmallFileRecord count{};
        if (!cursor.get(count) || count.num_records != files.size()) return badReply();
        for (const FilePiece& file : files) {
          wire::FileReadRecord echo{};
          if (!decodeEcho(cursor, {file.path}, echo) || echo.offset != file.offset ||
              echo.size > file.size) {
            return badReply();
          }
          result.pieces.push_back(cursor.take(echo.size));
        }
        if (!cursor.ok() || !cursor.rest().empty()) return badReply();
        result.storage = std::move(reply);
        return result;
      }));
}

void Disk::write(std::string_view path, std::int64_t offset, Buffer data, Callback<Unit> done) {
  wire::FileWriteRecord record{};
  record.offset = offset;
  record.fuse_length = static_cast<std::uint32_t>(std::min(data.size(), kMaxWriteSize));
  submitWrite(mTransport, path, record, std::move(data), std::move(done));
}

void Disk::writeBatch(std::string_view path, const std::vector<WritePiece>& pieces,
                      Callback<Unit> done) {
  // A chunk without data would make the host see a failure behind it.
  std::uint64_t size = 0;
  for (const WritePiece& piece : pieces) {
    if (!piece.data.empty()) size += wire::wireSize<wire::WriteChunk>() + piece.data.size();
  }
  if (size > kMaxWriteSize) {
    return fail(mTransport, std::move(done), refused("too much data for one write"));
  }
  Buffer data(static_cast<std::size_t>(size));
  std::byte* at = data.data();
  for (const WritePiece& piece : pieces) {
    if (piece.data.empty()) continue;
    at = wire::encodeAt(
        at, wire::WriteChunk{piece.offset, static_cast<std::uint32_t>(piece.data.size())});
    std::memcpy(at, piece.data.data(), piece.data.size());
    at += piece.data.size();
  }
  submitWrite(mTransport, path, wire::FileWriteRecord{}, std::move(data), std::move(done));
}

Result<FileData> Disk::read(std::string_view path, std::int64_t offset, std::uint32_t size) {
  return await<FileData>([&](auto done) { read(path, offset, size, std::move(done)); });
}

Result<FilePieces> Disk::readSmallFiles(const std::vector<FilePiece>& files) {
  return await<FilePieces>([&](auto done) { readSmallFiles(files, std::move(done)); });
}

Status Disk::write(std::string_view path, std::int64_t offset, Buffer data) {
  return await<Unit>([&](auto done) { write(path, offset, std::move(data), std::move(done)); });
}

Status Disk::writeBatch(std::string_view path, const std::vector<WritePiece>& pieces) {
  return await<Unit>([&](auto done) { writeBatch(path, pieces, std::move(done)); });
}

}  // namespace zor::client
