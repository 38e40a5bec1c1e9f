// The disk's operations, for those who have a lease of the path. See client/disk.h for
// what they do.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "client/presence.h"
#include "client/remote_path.h"
#include "client/set_length.h"
#include "drive/paths/path_gate.h"

namespace zor::client {

/// A whole small file of a directory.
struct SmallFileRequest {
  std::string name;
  std::uint32_t size = 0;
};

/// May be used from any thread; each call hands its requests over before it returns.
class DiskRequests {
 public:
  /// `transport` must outlive this object.
  explicit DiskRequests(Transport& transport) : mTransport(transport), mDisk(transport) {}

  void attributes(const PathLease& at, Callback<udisk_stat> done) {
    mDisk.attributes(at.path(), std::move(done));
  }
  void presence(const PathLease& at, Callback<Presence> done) {
    queryPresence(mDisk, at.path(), std::move(done));
  }
  void list(const PathLease& at, Callback<Listing> done) { mDisk.list(at.path(), std::move(done)); }
  void checkDir(const PathLease& at, const Listing& known, Callback<DirCheck> done) {
    mDisk.checkDir(at.path(), known, std::move(done));
  }
  void read(const PathLease& at, std::int64_t offset, std::uint32_t size, Callback<FileData> done) {
    mDisk.read(at.path(), offset, size, std::move(done));
  }
  void readSmallFiles(const PathLease& directory, const std::vector<SmallFileRequest>& files,
                      Callback<FilePieces> done) {
    std::vector<FilePiece> pieces;
    pieces.reserve(files.size());
    for (const auto& [name, size] : files) {
      pieces.push_back({joinPath(directory.path(), name), 0, size});
    }
    mDisk.readSmallFiles(pieces, std::move(done));
  }
  void statfs(const PathLease& at, Callback<udisk_statvfs> done) {
    mDisk.statfs(at.path(), std::move(done));
  }
  void create(const PathLease& at, std::uint32_t mode, Callback<Unit> done) {
    mDisk.create(at.path(), mode, std::move(done));
  }
  void write(const PathLease& at, std::int64_t offset, Buffer data, Callback<Unit> done) {
    mDisk.write(at.path(), offset, std::move(data), std::move(done));
  }
  void writeBatch(const PathLease& at, const std::vector<WritePiece>& pieces, Callback<Unit> done) {
    mDisk.writeBatch(at.path(), pieces, std::move(done));
  }
  void truncate(const PathLease& at, std::uint64_t length, Callback<Unit> done) {
    mDisk.truncate(at.path(), length, std::move(done));
  }
  /// Waits, and may give the file another name meanwhile: only during a rename.
  Status setLength(const PathLease& at, std::uint64_t length) {
    return zor::client::setLength(mDisk, at.path(), length);
  }
  void fsync(const PathLease& at, Callback<Unit> done) { mDisk.fsync(at.path(), std::move(done)); }
  void chmod(const PathLease& at, std::uint16_t mode, Callback<Unit> done) {
    mDisk.chmod(at.path(), mode, std::move(done));
  }
  void chown(const PathLease& at, std::uint32_t uid, std::uint32_t gid, Callback<Unit> done) {
    mDisk.chown(at.path(), uid, gid, std::move(done));
  }
  void makeDir(const PathLease& at, std::uint16_t mode, Callback<Unit> done) {
    mDisk.makeDir(at.path(), mode, std::move(done));
  }
  void removeDir(const PathLease& at, Callback<Unit> done) {
    mDisk.removeDir(at.path(), std::move(done));
  }
  void link(const PathLease& existing, const PathLease& added, Callback<Unit> done) {
    mDisk.link(existing.path(), added.path(), std::move(done));
  }
  /// For a file that has no path any more.
  template <class T>
  void failLater(Callback<T> done) {
    mTransport.post([done = std::move(done)] {
      done(Error{ErrorKind::kFailed, "the file is gone"});
    });
  }
  void unlink(const PathLease& at, Callback<Unit> done) {
    mDisk.unlink(at.path(), std::move(done));
  }
  void rename(const PathLease& from, const PathLease& to, Callback<Unit> done) {
    mDisk.rename(from.path(), to.path(), std::move(done));
  }

 private:
  Transport& mTransport;
  Disk mDisk;
};

}  // namespace zor::client
