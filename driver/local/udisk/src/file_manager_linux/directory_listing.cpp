// Listing of directories into the buffer that travels to the peer.
#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <thread>
#include <vector>

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

  bool append(const char* name, std::size_t length) {
    constexpr std::size_t kFixed = wire::wireSize<wire::DirEntryRecord>();
    const std::size_t entrySize = kFixed + length + 1;
    if (!reserve(entrySize + kTrailer)) return false;
    try {
      mEntries.push_back(static_cast<std::uint32_t>(mSize));
    } catch (const std::bad_alloc&) {
      return false;
    }
    const wire::DirEntryRecord record{{}, static_cast<std::uint16_t>(length + 1)};
    wire::encodeAt(reinterpret_cast<std::byte*>(mData + mSize), record);
    std::memcpy(mData + mSize + kFixed, name, length + 1);
    mSize += entrySize;
    return true;
  }

  std::size_t count() const noexcept { return mEntries.size(); }
  const char* name(std::size_t entry) const noexcept {
    return reinterpret_cast<const char*>(mData + mEntries[entry]) +
           wire::wireSize<wire::DirEntryRecord>();
  }
  // Different threads may set those of different entries.
  void setAttributes(std::size_t entry, const udisk_stat& attributes) noexcept {
    wire::encodeAt(reinterpret_cast<std::byte*>(mData + mEntries[entry]), attributes);
  }

  // Hands the buffer over with its closing zero byte.
  bool finish(_UDISK_DIR_ATTR* out) {
    if (!reserve(kTrailer)) return false;
    mData[mSize] = 0;
    out->entryCount = static_cast<std::uint32_t>(mEntries.size());
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
  std::vector<std::uint32_t> mEntries;  // where they begin; the attributes come first
};

// The stat of an entry is most of what a listing costs, and on a disk that has to
// seek for it all that it costs. Many entries are shared with a few threads.
class EntryLooks {
 public:
  EntryLooks(FileManagerLinux& files, int dirFd, ListingBuffer& buffer) noexcept
      : mFiles(files), mDirFd(dirFd), mBuffer(buffer) {}

  void run() {
    std::size_t most = std::min(mBuffer.count() / kWorthAThread, kMaxThreads);
    if (most > 1) most = std::min<std::size_t>(most, std::thread::hardware_concurrency());
    std::vector<std::thread> others;
    try {
      while (others.size() + 1 < most) {
        others.emplace_back([this] { lookAtSome(); });
      }
    } catch (const std::exception&) {  // then fewer of them do it
    }
    lookAtSome();
    for (std::thread& other : others) other.join();
  }

 private:
  static constexpr std::size_t kMaxThreads = 4;
  static constexpr std::size_t kWorthAThread = 256;
  static constexpr std::size_t kShare = 64;

  void lookAtSome() noexcept {
    const std::size_t count = mBuffer.count();
    for (std::size_t at; (at = mNext.fetch_add(kShare, std::memory_order_relaxed)) < count;) {
      for (const std::size_t end = std::min(count, at + kShare); at < end; ++at) {
        struct stat status {};
        udisk_stat attributes{};
        if (::fstatat(mDirFd, mBuffer.name(at), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
        mFiles.set_stat(status, &attributes);
        mBuffer.setAttributes(at, attributes);
      }
    }
  }

  FileManagerLinux& mFiles;
  const int mDirFd;
  ListingBuffer& mBuffer;
  std::atomic<std::size_t> mNext{0};
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

  // One pass over the names: what changes meanwhile is listed or not, and count,
  // length and entries agree in any case.
  ListingBuffer buffer;
  while (true) {
    errno = 0;
    const dirent* entry = ::readdir(stream.get());
    if (entry == nullptr) break;
    MORVEL_DEBUG(kLogFrequent, "dir_read file name: %s ", entry->d_name);
    if (!buffer.append(entry->d_name, std::strlen(entry->d_name))) {
      errno = ENOMEM;
      break;
    }
  }
  // A listing that ends early would pass for a complete one, and the files it
  // lacks for deleted.
  if (errno != 0) {
    MORVEL_ERROR("directory listing failed, errno: %s", std::strerror(errno));
    return -1;
  }
  EntryLooks(*this, dirFd, buffer).run();
  if (!buffer.finish(out)) {
    MORVEL_ERROR("directory listing failed, errno: %s", std::strerror(ENOMEM));
    return -1;
  }
  MORVEL_DEBUG(kLogFrequent, "buf_lenght: %d", static_cast<int>(out->bufferLength));
  return 0;
}

}  // namespace zor
