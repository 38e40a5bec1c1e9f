// What the drive knows of names and files.
//
// Nothing here locks or waits: everything is guarded by the drive's mutex.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "client/listing.h"
#include "drive/metadata/directory_snapshot.h"
#include "protocol/disk_records.h"

namespace zor::client {

using Clock = std::chrono::steady_clock;

/// Names a file for as long as the kernel, or an open file, refers to it.
using NodeId = std::uint64_t;
inline constexpr NodeId kRootNode = 1;

/// What a check does not compare (permissions, owners, link counts) is learned at least
/// this often, by a listing.
inline constexpr std::chrono::seconds kMaxListingAge{30};

/// The permissions without which a host that is not root cannot read and write.
inline constexpr std::uint32_t kOpenMode = S_IRUSR | S_IWUSR;

struct Node;

/// A name in a directory and what is known of the file behind it.
struct Entry {
  udisk_stat attributes{};
  Clock::time_point confirmed{};  ///< by a query for this name alone
  bool stale = false;             ///< we changed it, and only the host knows the outcome
  bool unreadable = false;        ///< listed, but the host could not read its attributes
  bool silly = false;             ///< removed by a program, but still open: a hidden name
  bool pending = false;           ///< being created or renamed: listings without it are older
  std::uint64_t linkEpoch = 0;    ///< of the cache, when the attributes were queried
  Node* node = nullptr;           ///< null when nobody refers to it
};

using Entries = std::map<std::string, Entry, std::less<>>;

/// What the host's system decides by whether the host may open a file.
struct Rights {
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::uint32_t mode = 0;
  auto operator<=>(const Rights&) const = default;
};

inline Rights rightsOf(const udisk_stat& attributes) {
  return {attributes.st_uid, attributes.st_gid, attributes.st_mode};
}

struct Directory {
  Entries entries;  ///< all of them, when `complete`
  bool complete = false;
  Clock::time_point confirmed{};  ///< when the whole listing was last known to be right
  Clock::time_point listed{};     ///< when it was last fetched
  Clock::duration lifetime{};     ///< of the listing, from `confirmed`
  bool recent = false;            ///< a file was changed shortly before it was fetched
  udisk_stat self{};              ///< of "."; st_mode is 0 when unknown
  Clock::time_point selfConfirmed{};
  udisk_stat parent{};               ///< of ".."; st_mode is 0 when not listed
  bool dots = false;                 ///< the host lists "." and ".."
  Clock::time_point lastCreation{};  ///< of a file, by us
  Rights creationRights;             ///< of the directory, then
  unsigned creating = 0;             ///< files that are being created here
  unsigned singles = 0;              ///< queries for single names since `confirmed`
  Clock::time_point disputed{};      ///< when last a name was refused and listed all the same
  DirectorySnapshot snapshot;        ///< of `entries`, or null
  std::shared_future<void> load;     ///< the listing or check under way
};

/// What programs do to an open file, as far as the host has not reported it back.
struct OpenState {
  virtual ~OpenState() = default;
  /// Data, or the creation, that the host has not acknowledged.
  virtual bool isUnacknowledged() const = 0;

  unsigned handles = 0;
  Clock::time_point created{};  ///< when it was created through an open, if it was
  bool creationFailed = false;  ///< the host refused to create it
  bool dirty = false;           ///< written since the attributes were learned
  std::int64_t end = 0;         ///< of what was written since then
  udisk_timespec lastWrite{};
  /// The permissions that it gets when it is closed: until then the host, which opens it
  /// for every request, needs others.
  std::optional<std::uint32_t> deferredMode;
  Clock::time_point identified{};  ///< when its inode number was last queried
  std::string lostPath;            ///< where it was, once it has no place any more
};

/// What distinguishes one version of a file's contents from another.
struct ContentStamp {
  std::int64_t size = -1;
  udisk_timespec modified{};
  udisk_timespec changed{};
  bool operator==(const ContentStamp&) const = default;
};

inline ContentStamp stampOf(const udisk_stat& attributes) {
  return {attributes.st_size, attributes.st_mtim, attributes.st_ctim};
}

struct Node {
  NodeId id = 0;
  Node* parent = nullptr;                ///< null for the root, and for what is gone
  Entries::value_type* place = nullptr;  ///< in the parent's entries; null with it
  std::uint64_t references = 0;          ///< the kernel's, and of those who wait
  unsigned children = 0;                 ///< nodes whose parent this is
  std::unique_ptr<Directory> directory;  ///< of directories
  std::unique_ptr<OpenState> open;       ///< of files that are open, or not yet on the host
  ContentStamp stamp;                    ///< of the last open
  Clock::time_point stampSince{};
  bool cacheTrusted = false;  ///< the kernel's pages were read well after the last change
  /// What it was like when we removed its last name. Programs may have it open.
  std::unique_ptr<udisk_stat> removed;

  const std::string& name() const { return place->first; }
  Entry& entry() const { return place->second; }
};

inline bool isDirectory(const udisk_stat& attributes) {
  return (attributes.st_mode & S_IFMT) == S_IFDIR;
}

inline bool isRegular(const udisk_stat& attributes) {
  return (attributes.st_mode & S_IFMT) == S_IFREG;
}

/// Of a file with a place, as the host reported it last.
inline std::uint64_t lengthOf(const Node& node) {
  const std::int64_t length = node.place == nullptr ? 0 : node.entry().attributes.st_size;
  return length < 0 ? 0 : static_cast<std::uint64_t>(length);
}

/// The directory as it is known now, made anew when it has changed.
const DirectorySnapshot& snapshotOf(Directory& directory);

/// The directory in the form in which a host compares it; nothing when it is too large
/// for that.
std::optional<Listing> composeListing(const Directory& directory);

}  // namespace zor::client
