// Listing of directories into the buffer that travels to the peer.
#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>

#include "file_manager_linux.h"
#include "morvel_log.h"

namespace zor {
namespace {

struct DirectoryCloser {
  void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

// The buffer of a listing. GLib's allocator is the C allocator; the variants
// that return null are used, because the others end the process.
class ListingBuffer {
 public:
  ListingBuffer() : mData(static_cast<unsigned char*>(g_try_malloc0(kFirstSize))) {
    if (mData != nullptr) mCapacity = kFirstSize;
  }
  ~ListingBuffer() { g_free(mData); }
  ListingBuffer(const ListingBuffer&) = delete;
  ListingBuffer& operator=(const ListingBuffer&) = delete;

  bool append(const udisk_stat& attributes, const char* name, std::size_t length) {
    constexpr std::size_t kFixed = wire::wireSize<wire::DirEntryRecord>();
    const std::size_t entrySize = kFixed + length + 1;
    if (!reserve(entrySize + kTrailer)) return false;
    const wire::DirEntryRecord record{attributes, static_cast<std::uint16_t>(length + 1)};
    wire::encodeAt(reinterpret_cast<std::byte*>(mData + mSize), record);
    std::memcpy(mData + mSize + kFixed, name, length + 1);
    mSize += entrySize;
    ++mCount;
    return true;
  }

  // Hands the buffer over with its closing zero byte.
  bool finish(_UDISK_DIR_ATTR* out) {
    if (!reserve(kTrailer)) return false;
    mData[mSize] = 0;
    out->entryCount = mCount;
    out->bufferLength = static_cast<std::uint32_t>(mSize + kTrailer);
    out->entries = std::exchange(mData, nullptr);
    return true;
  }

 private:
  static constexpr std::size_t kTrailer = 1;
  static constexpr std::size_t kFirstSize = std::size_t{16} << 10;

  bool reserve(std::size_t more) {
    if (more <= mCapacity - mSize) return true;
    const std::size_t grown = mCapacity + mCapacity / 2 + more;
    if (mData == nullptr || grown > std::numeric_limits<std::uint32_t>::max()) return false;
    void* data = g_try_realloc(mData, grown);
    if (data == nullptr) return false;
    mData = static_cast<unsigned char*>(data);
    mCapacity = grown;
    return true;
  }

  unsigned char* mData;
  std::size_t mSize = 0;
  std::size_t mCapacity = 0;
  std::uint32_t mCount = 0;
};

}  // namespace

int FileManagerLinux::UdiskReadDir(char* path, _UDISK_DIR_ATTR* out) {
  return UdiskReadDir(Location(path), out);
}

int FileManagerLinux::UdiskReadDir(const Location& directory, _UDISK_DIR_ATTR* out) {
  UniqueFd fd = directory.open(O_RDONLY | O_DIRECTORY | O_NONBLOCK);
  const std::unique_ptr<DIR, DirectoryCloser> stream(fd ? ::fdopendir(fd.get()) : nullptr);
  if (!stream) {
    MORVEL_ERROR("dir_read opendir failed errno: %s", std::strerror(errno));
    return -1;
  }
  const int dirFd = fd.release();  // the stream owns it now

  // One pass: what changes meanwhile is listed or not, and count, length and
  // entries agree in any case.
  ListingBuffer buffer;
  while (true) {
    errno = 0;
    const dirent* entry = ::readdir(stream.get());
    if (entry == nullptr) break;
    MORVEL_DEBUG(kLogFrequent, "dir_read file name: %s ", entry->d_name);
    struct stat status {};
    udisk_stat attributes{};
    if (::fstatat(dirFd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
      set_stat(status, &attributes);
    }
    if (!buffer.append(attributes, entry->d_name, std::strlen(entry->d_name))) {
      errno = ENOMEM;
      break;
    }
  }
  // A listing that ends early would pass for a complete one, and the files it
  // lacks for deleted.
  if (errno != 0 || !buffer.finish(out)) {
    MORVEL_ERROR("directory listing failed, errno: %s", std::strerror(errno));
    return -1;
  }
  MORVEL_DEBUG(kLogFrequent, "buf_lenght: %d", static_cast<int>(out->bufferLength));
  return 0;
}

}  // namespace zor
