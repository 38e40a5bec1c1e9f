// Commands 109 (length), 110 (flush to disk), 111 (permissions), 112 (owner).
#include <cstring>
#include <string>

#include "morvel_log.h"
#include "reply.h"
#include "request.h"
#include "udisk_operator.h"

namespace zor {
namespace {

// Only office programs make a file long before they fill it.
constexpr std::uint64_t kTruncateLimit = 10U << 20;

}  // namespace

int check_microsoft_suffix(char* path) {
  static constexpr const char* kSuffixes[] = {".doc", ".xls",  ".tmp",  ".ppt",  ".vsd",
                                              ".spp", ".docx", ".xlsx", ".pptx", ".vsdx"};
  const char* suffix = std::strrchr(path, '.');
  if (suffix == nullptr) {
    MORVEL_DEBUG(kLogDebug, "filename: %s without suffix", path);
    return 0;
  }
  MORVEL_DEBUG(kLogDebug, "suffix: %s", suffix);
  for (const char* known : kSuffixes) {
    if (std::strncmp(suffix, known, std::strlen(known)) == 0) return 1;
  }
  return 0;
}

int UDiskOperator::file_truncate(DecodedRequest<wire::TruncateRecord>& request) {
  DiskRoot& disk = openDisk(request);
  LogText local = disk.localPath(request.path().text);
  std::uint64_t length = request.record.length;
  MORVEL_DEBUG(kLogDebug, "file_truncate full path: %s,name len:%d,offset:%llu\n", local.c_str(),
               static_cast<int>(request.record.pathLength),
               static_cast<unsigned long long>(length));
  if (length > kTruncateLimit && check_microsoft_suffix(local.data()) == 0) length = kTruncateLimit;
  request.record.result = mFileManager->UdiskTruncate(Location(disk, request.path().text),
                                                      static_cast<long long>(length));
  MORVEL_DEBUG(kLogDebug, "file_truncate resule: %d", request.record.result);
  return finish(request, recordReply(request), "file_truncate");
}

int UDiskOperator::file_fsync(DecodedRequest<wire::FsyncRecord>& request) {
  DiskRoot& disk = openDisk(request);
  MORVEL_DEBUG(kLogDebug, "file_fsync full path: %s,name len:%dlu\n",
               disk.localPath(request.path().text).c_str(),
               static_cast<int>(request.record.pathLength));
  request.record.result = mFileManager->UdiskFsync(Location(disk, request.path().text));
  MORVEL_DEBUG(kLogDebug, "file_fsync  resule: %d", request.record.result);
  return finish(request, recordReply(request), "file_fsync");
}

int UDiskOperator::file_chmod(DecodedRequest<wire::ChmodRecord>& request) {
  DiskRoot& disk = openDisk(request);
  MORVEL_DEBUG(kLogDebug, "file_chmod full path: %s,name len:%d,mode: %d\n",
               disk.localPath(request.path().text).c_str(), request.record.pathLength,
               request.record.mode);
  request.record.result =
      mFileManager->UdiskFileChmod(Location(disk, request.path().text), request.record.mode);
  MORVEL_DEBUG(kLogDebug, "file_chmod resule: %d", request.record.result);
  return finish(request, recordReply(request), "file_chmod");
}

int UDiskOperator::file_chown(DecodedRequest<wire::ChownRecord>& request) {
  DiskRoot& disk = openDisk(request);
  const auto uid = static_cast<int>(request.record.uid);
  const auto gid = static_cast<int>(request.record.gid);
  MORVEL_DEBUG(kLogDebug, "file_chown full path: %s,name len:%d,uid: %d, gid: %d\n",
               disk.localPath(request.path().text).c_str(),
               static_cast<int>(request.record.pathLength), uid, gid);
  request.record.result =
      mFileManager->UdiskFileChown(Location(disk, request.path().text), uid, gid);
  MORVEL_DEBUG(kLogDebug, "file_chown resule: %d", request.record.result);
  return finish(request, recordReply(request), "file_chown");
}

}  // namespace zor
