// The module's only access to the local file system on behalf of the peer.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "disk_root.h"
#include "protocol/disk_records.h"

namespace zor {

/// A listing in memory. `entries` comes from the C allocator; the owner of
/// the record frees it with `free`.
struct _UDISK_DIR_ATTR {  // NOLINT(bugprone-reserved-identifier): the name is the interface's
  std::uint32_t entryCount;
  std::uint32_t bufferLength;
  unsigned char* entries;
};

/// Where file contents are read to: provides the memory once it is known how many
/// bytes there can be.
class ReadTarget {
 public:
  /// `size` bytes to read into, valid until the next call; null without memory.
  virtual std::byte* room(std::size_t size) noexcept = 0;

 protected:
  ~ReadTarget() = default;
};

/// Whether an operation logs why it failed.
enum class Failures { kLogged, kSilent };

/// An existing file, opened for the writes of one request. Opening never blocks;
/// a file that cannot be opened is logged once. Without memory for the way to it,
/// opening throws.
class FileWriter {
 public:
  explicit FileWriter(const Location& file);
  /// Bytes written; -1 when the write fails, 0 when the file could not be opened.
  int write(std::span<const std::byte> data, std::int64_t offset) noexcept;

 private:
  static constexpr char kFunction[] = "UdiskWriteFile";  // in the log: it is its work

  OpenedFile mFile;
};

/// Stateless: one short sequence of system calls per method, nothing stays
/// open, any thread, any number at a time. Results are 0 (or a count) or -1;
/// errno holds the reason of a -1.
///
/// Methods with `char*` take complete local paths. Those with a `Location` are
/// the entry for what a peer named; they do the same, confined to the disk.
class FileManagerLinux {
 public:
  FileManagerLinux() = default;
  /// Flushes everything written to the disk.
  ~FileManagerLinux();
  FileManagerLinux(const FileManagerLinux&) = delete;
  FileManagerLinux& operator=(const FileManagerLinux&) = delete;

  /// Whether files are opened so that no device in their place is, either; slower, and in the
  /// whole process. Turns itself on when a device is met.
  static void expectDevices(bool on) noexcept;

  // file_contents.cpp
  int UdiskCreateFile(char* path, int flags, int mode);
  int UdiskCreateFile(const Location& file, int flags, int mode);
  int UdiskFileOpen(char* path);
  int UdiskCloseFile(char* path, int fd);
  int UdiskCleanUp(char* path, int fd);
  int UdiskReadFile(const char* path, char* buf, long long offset, int size);
  /// Bytes read into `target`, at most `size`, or -1. Asks the target for no
  /// more than the file holds behind `offset`.
  int UdiskReadFile(const Location& file, std::int64_t offset, std::uint32_t size,
                    ReadTarget& target, Failures failures = Failures::kLogged);
  int UdiskWriteFile(char* path, char* buf, long long offset, int size);
  int UdiskFlushFile(char* path);
  int UdiskFlush(char* path);
  int UdiskTruncate(char* path, long long length);
  int UdiskTruncate(const Location& file, long long length);
  int UdiskFsync(char* path);
  int UdiskFsync(const Location& file);
  int UdiskRelease(char* path);
  int UdiskRelease(const Location& file);

  // attributes.cpp
  int set_stat(struct stat st, udisk_stat* out);
  int UdiskGetFileInformation(char* path, udisk_stat* out);
  int UdiskGetFileInformation(const Location& place, udisk_stat* out);
  int UdiskGetXattr(char* path);
  int UdiskFileChmod(char* path, int mode);
  int UdiskFileChmod(const Location& place, int mode);
  int UdiskFileChown(char* path, int uid, int gid);
  int UdiskFileChown(const Location& place, int uid, int gid);
  int set_statvfs(struct statvfs st, udisk_statvfs* out);
  int UdiskGetStatvfs(char* path, udisk_statvfs* out);
  int UdiskGetStatvfs(const DiskRoot& root, udisk_statvfs* out);

  // directory_listing.cpp
  int UdiskReadDir(char* path, _UDISK_DIR_ATTR* out);
  int UdiskReadDir(const Location& directory, _UDISK_DIR_ATTR* out);

  // namespace_changes.cpp
  int UdiskMakeDir(char* path, int mode, short createLast);
  /// Creates what is missing below the disk's root; the root itself is there.
  int UdiskMakeDir(const Location& directory, int mode, short createLast);
  int UdiskLink(char* from, char* to);
  int UdiskLink(const Location& from, const Location& to);
  int UdiskUnlink(char* path);
  int UdiskUnlink(const Location& name);
  int UdiskRename(char* from, char* to);
  int UdiskRename(const Location& from, const Location& to);
  int UdiskDeleteDirectory(const char* path);
  int UdiskDeleteDirectory(const Location& directory);

 private:
  int statisticsOf(int fd, udisk_statvfs* out);
};

}  // namespace zor
