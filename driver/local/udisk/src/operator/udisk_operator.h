// The object that serves the client of one redirected disk.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "file_manager_linux/file_manager_linux.h"
#include "operation.h"
#include "protocol/records.h"
#include "support/mutex.h"
#include "zor_device.h"
#include "zor_driver.h"
#include "zor_packet.h"
#include "zor_wait_listener.h"

namespace zor {

class ReplyBuilder;
struct HandlerCall;
struct TracePlace;
template <wire::Record R>
class DecodedRequest;

/// Milliseconds since the Unix epoch, from the wall clock.
std::int64_t getCurrentTime();

/// 1 when the path's suffix is one of those whose files may be made longer
/// than `kTruncateLimit`, else 0.
int check_microsoft_suffix(char* path);

/// The statistics of the disk as they were last read, under its label.
struct udisk_label_statvfs {
  char label[256];  ///< padded with zero bytes; a label of 256 bytes fills it
  udisk_statvfs statistics;
};

/// What the framework sees of a disk's operator, beside its identity.
class UdiskOperatorInf : public DriverObj {
 public:
  ~UdiskOperatorInf() override;
  /// The drive name that the client reported; empty before that.
  virtual std::string GetRemoteMountPoint() = 0;
  /// Where the disk is mounted here; empty after a reset.
  virtual std::string GetLocalMountPoint() = 0;
};

/// Threads: `EventHandle` and every handler on the driver's data-event thread,
/// one request at a time; `BusEventHandle` on the framework's bus-event thread;
/// `SetRootPath`, `SetReadOnly`, `TraceZorDevice` and the accessors on any.
///
/// A handler takes (header length, request) and returns what sending its reply
/// returned, or a negative value when it sent none. The request stays the
/// caller's and is only read. Nobody needs the result.
class UDiskOperator : public UdiskOperatorInf {
 public:
  explicit UDiskOperator(ZorDevice* device);  ///< `device` must outlive the operator
  ~UDiskOperator() override;
  UDiskOperator(const UDiskOperator&) = delete;
  UDiskOperator& operator=(const UDiskOperator&) = delete;

  int GetCID() override { return 0; }
  int GetVid() override { return 0; }
  int GetPid() override { return 0; }
  std::string GetDrvName() override;
  std::uint8_t GetDevId() override;
  void Stop() override {}
  std::string GetRemoteMountPoint() override;
  std::string GetLocalMountPoint() override;

  /// Every command of the protocol, in the order of the codes (dispatch.cpp).
  static std::span<const Operation> Operations() noexcept;

  /// Serves one request (dispatch.cpp). Never throws.
  void EventHandle(std::unique_ptr<ZorPacket> packet) noexcept;

  /// A batch of requests. While it exists, the mount point and the resolved directories
  /// stay open from one request to the next, for a moment at most. REQUIRES: all of its
  /// requests arrived before the first of them is served. Then each is served from what
  /// it would have found at some time since it was sent.
  class RequestBatch {
   public:
    explicit RequestBatch(UDiskOperator& op) noexcept : mOperator(op) { mOperator.mInBatch = true; }
    ~RequestBatch() {
      mOperator.mInBatch = false;
      mOperator.closeDisk();
    }
    RequestBatch(const RequestBatch&) = delete;
    RequestBatch& operator=(const RequestBatch&) = delete;

   private:
    UDiskOperator& mOperator;
  };
  /// Closes what is open of the disk. For the thread of `EventHandle` alone.
  WaitListener& Waits() noexcept { return mWaits; }

  /// Takes in a bandwidth announcement (bandwidth.cpp). Always 0.
  int BusEventHandle(std::shared_ptr<ZorPacket> packet);

  /// Sets the mount point to `letter` + `label` and returns 0; with a null
  /// argument, or a result that does not fit, resets it and returns -1. While
  /// there is no mount point every request fails (mount_point.cpp).
  int SetRootPath(char* letter, char* label);
  /// From now on every command that would change the disk fails as on a
  /// write-protected one.
  void SetReadOnly(bool readOnly) noexcept { mReadOnly = readOnly; }

  /// From now on a batch read may end without an answer: the driver is being closed.
  void StopServing() noexcept { mStopServing = true; }

  /// Reports an event to the device's trace sink. `extra` is not used (trace.cpp).
  void TraceZorDevice(std::string eventName, ZorDevice* device, bool success, std::string message,
                      const std::string& context, const std::string& extra);
  /// The same for this disk's device, with the place in front of `text` and `detail`. Of
  /// `context` as much is passed on as a log line shows. Without memory nothing is reported.
  void Trace(const char* eventName, bool success, const TracePlace& place, std::string_view text,
             std::string_view detail = {}, std::string_view context = {}) noexcept;

  // mount_requests.cpp
  int mount_remote(unsigned char headerLength, ZorPacket* request);
  int umount_remote(unsigned char headerLength, ZorPacket* request);
  int mount_response(unsigned char headerLength, ZorPacket* request);
  // attribute_queries.cpp
  int get_file_attr(unsigned char headerLength, ZorPacket* request);
  int get_xattr(unsigned char headerLength, ZorPacket* request);
  int get_statvfs(unsigned char headerLength, ZorPacket* request);
  // file_create.cpp
  int file_create(unsigned char headerLength, ZorPacket* request);
  int file_open(unsigned char headerLength, ZorPacket* request);
  // file_read.cpp, file_write.cpp, small_file_read.cpp
  int file_read(unsigned char headerLength, ZorPacket* request);
  int file_write(unsigned char headerLength, ZorPacket* request);
  int small_file_read(unsigned char headerLength, ZorPacket* request);
  // directory_listing.cpp
  int dir_read(unsigned char headerLength, ZorPacket* request);
  int check_dir(unsigned char headerLength, ZorPacket* request);
  // attribute_changes.cpp
  int file_truncate(unsigned char headerLength, ZorPacket* request);
  int file_fsync(unsigned char headerLength, ZorPacket* request);
  int file_chmod(unsigned char headerLength, ZorPacket* request);
  int file_chown(unsigned char headerLength, ZorPacket* request);
  // handle_operations.cpp
  int file_flush(unsigned char headerLength, ZorPacket* request);
  int file_release(unsigned char headerLength, ZorPacket* request);
  // namespace_changes.cpp
  int make_dir(unsigned char headerLength, ZorPacket* request);
  int remove_dir(unsigned char headerLength, ZorPacket* request);
  int set_link(unsigned char headerLength, ZorPacket* request);
  int set_unlink(unsigned char headerLength, ZorPacket* request);
  int set_rename(unsigned char headerLength, ZorPacket* request);

  /// Whether the cached listing still describes the directory: the same names,
  /// sizes and modification times in whole seconds, in any order.
  /// Reads both listings and changes neither. A null `cached` describes no directory that
  /// has entries.
  /// REQUIRES: both listings hold that many entries, all well-formed
  /// (compare_cache.cpp).
  bool compare_cache(int cachedCount, int currentCount, unsigned char* cached,
                     unsigned char* current);

 private:
  friend struct UDiskOperatorPeek;  // tests read the state that has no accessor

  struct FreeDeleter {
    void operator()(void* memory) const noexcept;
  };
  using LabelRecord = std::unique_ptr<udisk_label_statvfs, FreeDeleter>;

  struct DiskCloser final : WaitListener {
    explicit DiskCloser(UDiskOperator& owner) noexcept : op(owner) {}
    void aboutToWait() noexcept override { op.closeDisk(); }
    UDiskOperator& op;
  };

  /// Whether a read opens the new period of the limiter or only ends the old one.
  enum class PeriodStart { kWithThisRead, kEmpty };

  // The handlers, each in the file that is named above. They get a decoded request, its record
  // becomes the reply's, and they return what the public one of the same name returns.
  int mount_remote(DecodedRequest<wire::MountRemoteRequest>& request);
  int umount_remote(DecodedRequest<wire::MountRemoteRequest>& request);
  int get_file_attr(DecodedRequest<wire::FileAttrRecord>& request);
  int file_create(DecodedRequest<wire::FileCreateRecord>& request);
  int file_read(DecodedRequest<wire::FileReadRecord>& request);
  int file_write(DecodedRequest<wire::FileWriteRecord>& request);
  int dir_read(DecodedRequest<wire::DirRecord>& request);
  int get_xattr(DecodedRequest<wire::XattrRecord>& request);
  int file_truncate(DecodedRequest<wire::TruncateRecord>& request);
  int file_fsync(DecodedRequest<wire::FsyncRecord>& request);
  int file_chmod(DecodedRequest<wire::ChmodRecord>& request);
  int file_chown(DecodedRequest<wire::ChownRecord>& request);
  int get_statvfs(DecodedRequest<wire::StatvfsRecord>& request);
  int make_dir(DecodedRequest<wire::MakeDirRecord>& request);
  int remove_dir(DecodedRequest<wire::RemoveRecord>& request);
  int set_link(DecodedRequest<wire::TwoPathRecord>& request);
  int set_unlink(DecodedRequest<wire::RemoveRecord>& request);
  int set_rename(DecodedRequest<wire::TwoPathRecord>& request);
  int file_flush(DecodedRequest<wire::HandleRecord>& request);
  int file_release(DecodedRequest<wire::HandleRecord>& request);
  int check_dir(DecodedRequest<wire::DirRecord>& request);
  int small_file_read(const HandlerCall& request);
  int mount_response(const HandlerCall& call);

  template <wire::Command C, wire::Record R>
  int serve(unsigned char headerLength, const ZorPacket* packet,
            int (UDiskOperator::*handler)(DecodedRequest<R>&));
  template <wire::Command C>
  int serve(unsigned char headerLength, const ZorPacket* packet,
            int (UDiskOperator::*handler)(const HandlerCall&));

  int resetRootPath();
  std::string mountPoint();
  /// The mount point, open for the request at hand: valid until the request is
  /// over, or `closeDisk`. Everything below it fails when there is no mount
  /// point, when another file system shows in its place, or when the request
  /// would change a read-only disk.
  DiskRoot& openDisk(const HandlerCall& request);
  void closeDisk() noexcept { mDisk.reset(); }
  DiskRoot openMountPoint();
  bool diskIsValid();
  int reply(const HandlerCall& request, ReplyBuilder& reply);
  /// The end of a handler that logs the reply's size under `name`.
  int finish(const HandlerCall& request, ReplyBuilder reply, const char* name);
  int send(std::unique_ptr<ZorPacket> packet);
  int echo(const ZorPacket& request);
  int mountEcho(const DecodedRequest<wire::MountRemoteRequest>& request);
  bool isTraced(const std::string& path);
  void limitReadRate(const char* function, std::uint32_t count, PeriodStart start);

  ZorDevice* mDevice;
  std::unique_ptr<FileManagerLinux> mFileManager;
  std::int32_t vmId = 0;
  Mutex mMountMutex;  ///< never held over a file-system call
  char mMountPoint[256] GUARDED_BY(mMountMutex) = "/media/";
  std::string mMountDrive GUARDED_BY(mMountMutex);
  std::list<LabelRecord> mStatvfsList GUARDED_BY(mMountMutex);
  std::int32_t mDiskChanged = 0;  ///< data-event thread only, as the next four
  bool mInBatch = false;
  std::optional<DiskRoot> mDisk;  ///< the mount point, held open
  std::uint64_t mDiskGeneration = 0;
  std::chrono::steady_clock::time_point mDiskOpened;
  std::atomic<std::uint32_t> mBandwidth{0};
  std::atomic<std::int64_t> mReadTime{0};
  std::atomic<std::int64_t> mBandwidthTime{0};
  std::int64_t mBandwidthTraceTime = 0;  ///< bus-event thread only, as the next
  std::int64_t mBandwidthCheckTime = 0;
  std::uint32_t mWindowBytes = 0;  ///< data-event thread only, as the next
  std::int64_t mRelishTime = 0;

  DiskCloser mWaits{*this};
  std::atomic<bool> mReadOnly{false};
  std::atomic<bool> mStopServing{false};
  /// Of the mount point's first use.
  std::optional<MountIdentity> mMountIdentity GUARDED_BY(mMountMutex);
  /// Counts the settings of mMountPoint.
  std::uint64_t mMountGeneration GUARDED_BY(mMountMutex) = 0;
  bool mGoneReported GUARDED_BY(mMountMutex) = false;  ///< since the disk was seen last
  /// Mounted later: its statfs is unknown.
  bool mDiskTaken GUARDED_BY(mMountMutex) = false;
};

}  // namespace zor
