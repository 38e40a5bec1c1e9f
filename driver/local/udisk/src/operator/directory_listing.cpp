// Commands 107 (listing) and 121 (has it changed?).
#include <cstdlib>
#include <string>

#include "compare_cache.h"
#include "morvel_log.h"
#include "reply.h"
#include "request.h"
#include "udisk_operator.h"

namespace zor {
namespace {

// A listing that frees its buffer. Stays empty when the directory cannot be listed.
struct Listing : _UDISK_DIR_ATTR {
  Listing() : _UDISK_DIR_ATTR{} {}
  ~Listing() { std::free(entries); }
  Listing(const Listing&) = delete;
  Listing& operator=(const Listing&) = delete;

  wire::Bytes bytes() const noexcept {
    return {reinterpret_cast<const std::byte*>(entries), bufferLength};
  }
};

ReplyBuilder listingReply(DecodedRequest<wire::DirRecord>& request, const Listing& listing) {
  request.record.listingLength = listing.bufferLength;
  request.record.entryCount = static_cast<std::uint16_t>(listing.entryCount);
  ReplyBuilder answer(request, wire::wireSize<wire::DirRecord>() + request.path().received.size() +
                                   listing.bufferLength);
  answer.add(request.record).add(request.path().received).add(listing.bytes());
  return answer;
}

}  // namespace

int UDiskOperator::dir_read(DecodedRequest<wire::DirRecord>& request) {
  const PeerString& path = request.path();
  MORVEL_DEBUG(kLogFrequent, "dir_read dir: %s, size:%d\n", path.logged().c_str(),
               request.record.pathLength);
  if (!path.whole()) {
    MORVEL_ERROR("dir_read dir not match\n");
    return -1;
  }
  DiskRoot& disk = openDisk(request);
  MORVEL_DEBUG(kLogFrequent, "dir_read full path: %s\n", disk.localPath(path.text).c_str());
  Listing listing;
  mFileManager->UdiskReadDir(Location(disk, path.text), &listing);
  ReplyBuilder answer = listingReply(request, listing);
  MORVEL_DEBUG(kLogFrequent, "dir_read send back size: %d\n", static_cast<int>(answer.size()));
  return reply(request, answer);
}

int UDiskOperator::check_dir(DecodedRequest<wire::DirRecord>& request) {
  wire::Bytes cached;
  if (!request.data(request.record.listingLength, cached)) return -1;
  const PeerString& path = request.path();
  MORVEL_DEBUG(kLogDebug, "cache_file_count:%d", request.record.entryCount);
  MORVEL_DEBUG(kLogDebug, "check_dir dir: %s, size:%d\n", path.logged().c_str(),
               request.record.pathLength);
  if (!path.whole()) {
    MORVEL_ERROR("check dir not match\n");
    return -1;
  }
  DiskRoot& disk = openDisk(request);
  MORVEL_DEBUG(kLogDebug, "check dir full path: %s\n", disk.localPath(path.text).c_str());
  Listing listing;
  mFileManager->UdiskReadDir(Location(disk, path.text), &listing);

  // A cached listing that makes no sense describes no directory: its holder
  // gets the current one.
  const std::uint16_t count = request.record.entryCount;
  unsigned char* old = nullptr;
  if (holdsEntries(cached, count)) {  // is only read, as the whole request
    old = reinterpret_cast<unsigned char*>(const_cast<std::byte*>(cached.data()));
  }
  if (compare_cache(count, static_cast<int>(listing.entryCount), old, listing.entries)) {
    MORVEL_DEBUG(kLogDebug, "========== not update==========");
    return -1;
  }
  ReplyBuilder answer = listingReply(request, listing);
  MORVEL_DEBUG(kLogDebug, "check_dir send back size: %d\n", static_cast<int>(answer.size()));
  return reply(request, answer);
}

}  // namespace zor
