// Changes of attributes and names.
#include "client/disk.h"
#include "client/exchange.h"

namespace zor::client {

using namespace exchange;
using wire::Command;

namespace {

/// For records with a `result` field that holds 0 or -1.
template <class Record>
Status validateResult(const Record& echo) {
  if (echo.result != 0) return failed("the host could not do it");
  return Unit{};
}

Status always(const wire::HandleRecord&) { return Unit{}; }

}  // namespace

void Disk::create(std::string_view path, std::uint32_t mode, Callback<Unit> done) {
  wire::FileCreateRecord record{};
  record.mode = mode;
  change(mTransport, Command::kFileCreate, record, {std::string(path)}, std::move(done),
         [](const wire::FileCreateRecord& echo) -> Status {
           if (echo.fd < 0) return failed("the file could not be created");
           return Unit{};
         });
}

void Disk::truncate(std::string_view path, std::uint64_t length, Callback<Unit> done) {
  wire::TruncateRecord record{};
  record.length = length;
  change(mTransport, Command::kFileTruncate, record, {std::string(path)}, std::move(done),
         validateResult<wire::TruncateRecord>);
}

void Disk::fsync(std::string_view path, Callback<Unit> done) {
  change(mTransport, Command::kFileFsync, wire::FsyncRecord{}, {std::string(path)}, std::move(done),
         validateResult<wire::FsyncRecord>);
}

void Disk::chmod(std::string_view path, std::uint16_t mode, Callback<Unit> done) {
  wire::ChmodRecord record{};
  record.mode = mode;
  change(mTransport, Command::kFileChmod, record, {std::string(path)}, std::move(done),
         validateResult<wire::ChmodRecord>);
}

void Disk::chown(std::string_view path, std::uint32_t uid, std::uint32_t gid, Callback<Unit> done) {
  wire::ChownRecord record{};
  record.uid = uid;
  record.gid = gid;
  change(mTransport, Command::kFileChown, record, {std::string(path)}, std::move(done),
         validateResult<wire::ChownRecord>);
}

void Disk::flush(std::string_view path, Callback<Unit> done) {
  change(mTransport, Command::kFileFlush, wire::HandleRecord{}, {std::string(path)},
         std::move(done), always);
}

void Disk::release(std::string_view path, Callback<Unit> done) {
  change(mTransport, Command::kFileRelease, wire::HandleRecord{}, {std::string(path)},
         std::move(done), always);
}

void Disk::makeDir(std::string_view path, std::uint16_t mode, Callback<Unit> done) {
  wire::MakeDirRecord record{};
  record.mode = static_cast<std::int16_t>(mode);
  change(mTransport, Command::kMakeDir, record, {std::string(path)}, std::move(done),
         validateResult<wire::MakeDirRecord>);
}

void Disk::removeDir(std::string_view path, Callback<Unit> done) {
  change(mTransport, Command::kRemoveDir, wire::RemoveRecord{}, {std::string(path)},
         std::move(done), validateResult<wire::RemoveRecord>);
}

void Disk::link(std::string_view existing, std::string_view added, Callback<Unit> done) {
  change(mTransport, Command::kSetLink, wire::TwoPathRecord{},
         {std::string(existing), std::string(added)}, std::move(done),
         validateResult<wire::TwoPathRecord>);
}

void Disk::unlink(std::string_view path, Callback<Unit> done) {
  change(mTransport, Command::kSetUnlink, wire::RemoveRecord{}, {std::string(path)},
         std::move(done), validateResult<wire::RemoveRecord>);
}

void Disk::rename(std::string_view from, std::string_view to, Callback<Unit> done) {
  change(mTransport, Command::kSetRename, wire::TwoPathRecord{},
         {std::string(from), std::string(to)}, std::move(done),
         validateResult<wire::TwoPathRecord>);
}

Status Disk::create(std::string_view path, std::uint32_t mode) {
  return await<Unit>([&](auto done) { create(path, mode, std::move(done)); });
}

Status Disk::truncate(std::string_view path, std::uint64_t length) {
  return await<Unit>([&](auto done) { truncate(path, length, std::move(done)); });
}

Status Disk::fsync(std::string_view path) {
  return await<Unit>([&](auto done) { fsync(path, std::move(done)); });
}

Status Disk::chmod(std::string_view path, std::uint16_t mode) {
  return await<Unit>([&](auto done) { chmod(path, mode, std::move(done)); });
}

Status Disk::chown(std::string_view path, std::uint32_t uid, std::uint32_t gid) {
  return await<Unit>([&](auto done) { chown(path, uid, gid, std::move(done)); });
}

Status Disk::flush(std::string_view path) {
  return await<Unit>([&](auto done) { flush(path, std::move(done)); });
}

Status Disk::release(std::string_view path) {
  return await<Unit>([&](auto done) { release(path, std::move(done)); });
}

Status Disk::makeDir(std::string_view path, std::uint16_t mode) {
  return await<Unit>([&](auto done) { makeDir(path, mode, std::move(done)); });
}

Status Disk::removeDir(std::string_view path) {
  return await<Unit>([&](auto done) { removeDir(path, std::move(done)); });
}

Status Disk::link(std::string_view existing, std::string_view added) {
  return await<Unit>([&](auto done) { link(existing, added, std::move(done)); });
}

Status Disk::unlink(std::string_view path) {
  return await<Unit>([&](auto done) { unlink(path, std::move(done)); });
}

Status Disk::rename(std::string_view from, std::string_view to) {
  return await<Unit>([&](auto done) { rename(from, to, std::move(done)); });
}

}  // namespace zor::client
