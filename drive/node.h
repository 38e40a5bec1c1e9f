// What the drive knows of the disk's tree.
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
#include <string_view>
#include <unordered_map>
#include <vector>

#include "client/listing.h"
#include "drive/directory_snapshot.h"
#include "drive/write_gather.h"
#include "protocol/disk_records.h"

namespace zor::client {

using Clock = std::chrono::steady_clock;

/// Names a file for as long as the kernel, or an open file, refers to it.
using NodeId = std::uint64_t;
inline constexpr NodeId kRootNode = 1;

/// What a check does not compare (permissions, owners, link counts) is learnt
/// at least this often, by a listing.
inline constexpr std::chrono::seconds kListAgainAfter{30};

/// The permissions without which a host that is not root cannot read and write.
inline constexpr std::uint32_t kOpenMode = S_IRUSR | S_IWUSR;

struct Node;

/// A name in a directory and what is known of the file behind it.
struct Entry {
  udisk_stat attributes{};
  Clock::time_point confirmed{};  ///< by a question about this name alone
  bool stale = false;             ///< changed by us in a way that only the host can tell
  bool unreadable = false;        ///< listed, but the host could not read its attributes
  bool hidden = false;            ///< removed by a program, but still open
  bool changing = false;          ///< being made or renamed: answers without it are older
  std::uint64_t linkEpoch = 0;    ///< of the drive, when the attributes were asked for
  Node* node = nullptr;           ///< null when nobody refers to it
};

using Entries = std::map<std::string, Entry, std::less<>>;

/// What the host's system decides by whether it lets the host in.
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
  Clock::duration lifetime{};     ///< for how long it counts without a question
  bool recent = false;            ///< a file was changed shortly before it was fetched
  udisk_stat self{};              ///< of "."; st_mode is 0 when unknown
  Clock::time_point selfConfirmed{};
  udisk_stat parent{};               ///< of ".."; st_mode is 0 when not listed
  bool dots = false;                 ///< the host lists "." and ".."
  Clock::time_point lastCreation{};  ///< of a file, by us
  Rights creationRights;             ///< of the directory, then
  unsigned young = 0;                ///< files that are being made here
  unsigned singles = 0;              ///< questions about single names since `confirmed`
  Clock::time_point disputed{};      ///< when last a name was refused and listed all the same
  DirectorySnapshot snapshot;        ///< of `entries`, or null
  std::shared_future<void> load;     ///< the listing or check under way
};

/// A file that is open or has data that is not on the disk yet.
struct FileState {
  unsigned handles = 0;
  Clock::time_point created{};   ///< when it was created through an open, if it was
  WriteGather gather;            ///< not sent yet
  Clock::time_point gathered{};  ///< when its oldest byte was written
  unsigned inFlight = 0;         ///< requests that are to be waited for before a close
  bool young = false;            ///< being made; nothing that the host tells of it is known
  bool neverMade = false;        ///< the host refused to make it
  bool unsynced = false;         ///< written since the last sync
  bool ahead = false;            ///< written since the attributes were learnt
  std::int64_t end = 0;          ///< of what was written since then
  udisk_timespec lastWrite{};
  /// The permissions that it gets when it is closed: until then the host, which
  /// opens it for every request, must be let in.
  std::optional<std::uint32_t> lateMode;
  Clock::time_point identified{};  ///< when its inode number was last asked for
  std::string lostPath;            ///< where it was, once it has no place any more
  std::uint64_t writes = 0;        ///< by programs, ever
  std::uint64_t failures = 0;      ///< failed writes, ever
  std::uint64_t failedBytes = 0;   ///< of the largest that failed
  std::uint64_t failedEnd = 0;     ///< where the furthest that failed was to end
};

/// What tells one version of a file's contents from another.
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
  std::uint64_t references = 0;          ///< the kernel's
  unsigned children = 0;                 ///< nodes whose parent this is
  std::unique_ptr<Directory> directory;  ///< of directories
  std::unique_ptr<FileState> file;
  ContentStamp stamp;  ///< of the last open
  Clock::time_point stampSince{};
  bool cacheTrusted = false;  ///< the kernel's pages were read well after the last change
  /// What it was like when we removed its last name. Programs may have it open.
  std::unique_ptr<udisk_stat> removed;
};

class NodeTree {
 public:
  /// `lastingInodes`: a file keeps its inode number for as long as it exists.
  explicit NodeTree(bool lastingInodes = true);

  Node& root() noexcept { return *mRoot; }
  Node* find(NodeId id);
  const Node* find(NodeId id) const;

  /// The node of a name, made if it has none.
  Node& nodeAt(Node& directory, Entries::value_type& place);

  /// Whether the file is still somewhere in the tree.
  bool has(const Node& node) const noexcept;

  /// The path on the disk, or nothing when the file is gone.
  std::optional<std::string> path(const Node& node) const;

  /// Takes the name out of the tree. Its node, if any, lives on without a place
  /// until nobody refers to it.
  void remove(Node& directory, std::string_view name);

  /// Gives an entry another name, replacing what is there.
  void move(Node& from, std::string_view name, Node& to, std::string_view newName);

  /// Frees the node, and those above it, if nobody refers to them any more.
  void releaseIfUnused(Node* node);

  /// Puts a listing in the place of what was known. What is not in it any more
  /// loses its place; a name that became a file of another type gets a new node.
  void merge(Node& directory, const Listing& listing, Clock::time_point now, std::uint64_t epoch);

  /// Drops what was learnt of names that nobody refers to, in directories that were not
  /// asked about since `listedBefore` and would be listed again.
  void dropUnused(Clock::time_point now, Clock::time_point listedBefore);

  /// Names and nodes that are known.
  std::size_t size() const;

  /// Names and nodes that were dropped, ever.
  std::uint64_t dropped() const noexcept { return mDropped; }

  /// Whether the entry's node, if any, can stand for a file with these attributes.
  bool fits(const Entry& entry, const udisk_stat& attributes) const;

  /// Calls `visit(node)` for every node with a file state.
  template <class Visit>
  void forEachOpen(Visit visit) {
    for (auto& [id, node] : mNodes) {
      if (node->file) visit(*node);
    }
  }

 private:
  bool isReplaced(const Entry& entry, const udisk_stat& attributes) const;
  void detach(Entry& entry);
  Entries::iterator drop(Entries& entries, Entries::iterator at);

  std::unordered_map<NodeId, std::unique_ptr<Node>> mNodes;
  Node* mRoot;
  NodeId mLastId = kRootNode;
  std::uint64_t mDropped = 0;
  const bool mLastingInodes;
};

inline bool isDirectory(const udisk_stat& attributes) {
  return (attributes.st_mode & 0170000U) == 0040000U;
}

/// Of a file with a place, as the host told it last.
inline std::uint64_t lengthOf(const Node& node) {
  const std::int64_t length = node.place == nullptr ? 0 : node.place->second.attributes.st_size;
  return length < 0 ? 0 : static_cast<std::uint64_t>(length);
}

/// The directory as it is known now, made anew when it has changed.
const DirectorySnapshot& snapshotOf(Directory& directory);

/// The directory in the form in which a host compares it; nothing when it is
/// too large for that.
std::optional<Listing> composeListing(const Directory& directory);

/// The present as file times tell it.
udisk_timespec wallClock();

inline bool isRegular(const udisk_stat& attributes) {
  return (attributes.st_mode & 0170000U) == 0100000U;
}

}  // namespace zor::client
