// The operations of a redirected disk.
//
// Every operation has two forms. With a callback it returns at once and the
// callback runs later as described at `Completion`; without, it waits, and must
// not be called from a callback. Paths begin with "/", are relative to the
// disk's root and contain neither zero bytes nor more than kMaxPathLength
// bytes; others are refused without asking the host. A host reports only that
// an operation failed, and no reason.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "client/listing.h"
#include "client/transport.h"
#include "protocol/disk_records.h"

namespace zor::client {

template <class T>
using Callback = std::function<void(Result<T>)>;

inline constexpr std::size_t kMaxPathLength = 0xffff;

/// Part of a file, in the memory in which it arrived.
class FileData {
 public:
  FileData(Buffer storage, std::size_t offset) noexcept
      : mStorage(std::move(storage)), mOffset(offset) {}
  wire::Bytes bytes() const noexcept { return mStorage.bytes().subspan(mOffset); }

 private:
  Buffer mStorage;
  std::size_t mOffset;
};

struct FilePiece {
  std::string path;
  std::int64_t offset = 0;
  std::uint32_t size = 0;
};

/// What a batch of small files gave, in the order of the request.
struct FilePieces {
  Buffer storage;
  std::vector<wire::Bytes> pieces;  ///< in `storage`; empty at the end of a file and on failure
};

struct WritePiece {
  std::int64_t offset = 0;
  wire::Bytes data;  ///< used before the operation returns
};

/// Whether a directory has changed, and its new listing if so.
struct DirCheck {
  bool changed = false;
  Listing fresh;  ///< empty when unchanged
};

/// The bytes that a request for `piece` adds to a batch; the sum must stay
/// below kMaxBatchSize.
std::uint64_t batchCost(const FilePiece& piece);
inline constexpr std::uint64_t kMaxBatchSize = wire::kMaxPacketLength - 64;

/// The most data that one write carries.
inline constexpr std::size_t kMaxWriteSize = std::size_t{32} << 20;

/// Stateless; may be used from any thread. The transport must outlive it.
class Disk {
 public:
  explicit Disk(Transport& transport) : mTransport(transport) {}

  // Queries.

  /// Of a symbolic link: the link's own attributes.
  void attributes(std::string_view path, Callback<udisk_stat> done);
  /// Also asks whether the disk can be read at all, in the same round trip; if it cannot,
  /// ErrorKind::kUnreadable.
  Result<udisk_stat> attributes(std::string_view path);

  void list(std::string_view path, Callback<Listing> done);
  Result<Listing> list(std::string_view path);

  /// Whether `known`, an earlier listing of `path`, still describes it: names,
  /// sizes and whole seconds of modification times are compared. A directory
  /// that can no longer be read has changed to an empty listing without "."
  void checkDir(std::string_view path, const Listing& known, Callback<DirCheck> done);
  Result<DirCheck> checkDir(std::string_view path, const Listing& known);

  /// Up to `size` bytes (the host gives at most kMaxReadSize). Nothing at all
  /// means the end of the file or a file that cannot be read: the answers are
  /// the same.
  void read(std::string_view path, std::int64_t offset, std::uint32_t size,
            Callback<FileData> done);
  Result<FileData> read(std::string_view path, std::int64_t offset, std::uint32_t size);

  /// Pieces of several files with one request. Only for hosts that have announced
  /// that they serve it.
  void readSmallFiles(const std::vector<FilePiece>& files, Callback<FilePieces> done);
  Result<FilePieces> readSmallFiles(const std::vector<FilePiece>& files);

  /// Fails when the disk cannot be reached. Hosts repeat that until the next change.
  void statfs(std::string_view path, Callback<udisk_statvfs> done);
  Result<udisk_statvfs> statfs(std::string_view path);

  /// The size of an extended attribute's value; hosts answer 0 for each.
  void xattr(std::string_view path, std::string_view name, Callback<std::uint64_t> done);
  Result<std::uint64_t> xattr(std::string_view path, std::string_view name);

  // Changes of files.

  /// Creates an empty file, and the directories above it. An existing file
  /// loses its contents.
  void create(std::string_view path, std::uint32_t mode, Callback<Unit> done);
  Status create(std::string_view path, std::uint32_t mode);

  /// Writes into an existing file; all or an error, after which part of it may
  /// be written. At most kMaxWriteSize bytes.
  void write(std::string_view path, std::int64_t offset, Buffer data, Callback<Unit> done);
  Status write(std::string_view path, std::int64_t offset, Buffer data);

  /// Several writes into one file, in order, with one request. At most
  /// kMaxWriteSize bytes, 12 more counted per piece.
  void writeBatch(std::string_view path, const std::vector<WritePiece>& pieces,
                  Callback<Unit> done);
  Status writeBatch(std::string_view path, const std::vector<WritePiece>& pieces);

  /// Hosts cut a length beyond kTruncateLimit for most names and report
  /// success all the same; `setLength` is exact.
  void truncate(std::string_view path, std::uint64_t length, Callback<Unit> done);
  Status truncate(std::string_view path, std::uint64_t length);

  void fsync(std::string_view path, Callback<Unit> done);
  Status fsync(std::string_view path);

  void chmod(std::string_view path, std::uint16_t mode, Callback<Unit> done);
  Status chmod(std::string_view path, std::uint16_t mode);

  /// An id of 2^32 - 1 stays as it is.
  void chown(std::string_view path, std::uint32_t uid, std::uint32_t gid, Callback<Unit> done);
  Status chown(std::string_view path, std::uint32_t uid, std::uint32_t gid);

  /// Does nothing on the host and is always answered.
  void flush(std::string_view path, Callback<Unit> done);
  Status flush(std::string_view path);

  /// Makes the host write the file's data to the disk; the host never reports a failure.
  void release(std::string_view path, Callback<Unit> done);
  Status release(std::string_view path);

  // Changes of names.

  /// Creates the directory and those above it; an existing one is success.
  /// A backslash separates components, too.
  void makeDir(std::string_view path, std::uint16_t mode, Callback<Unit> done);
  Status makeDir(std::string_view path, std::uint16_t mode);

  void removeDir(std::string_view path, Callback<Unit> done);
  Status removeDir(std::string_view path);

  /// A hard link.
  void link(std::string_view existing, std::string_view added, Callback<Unit> done);
  Status link(std::string_view existing, std::string_view added);

  void unlink(std::string_view path, Callback<Unit> done);
  Status unlink(std::string_view path);

  void rename(std::string_view from, std::string_view to, Callback<Unit> done);
  Status rename(std::string_view from, std::string_view to);

 private:
  Transport& mTransport;
};

inline constexpr std::uint64_t kTruncateLimit = std::uint64_t{10} << 20;

}  // namespace zor::client
