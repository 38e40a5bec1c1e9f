// The tree of names and files, and for how long what is known of them is valid.
//
// No requests and no waiting: replies are put in by those who asked. Guarded by the drive's
// mutex. A name whose creation is only pending is an entry like any other.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "client/result.h"
#include "drive/metadata/node.h"

namespace zor::client {

struct NameCacheOptions {
  std::chrono::milliseconds lifetime{1000};  ///< of attributes and names
  /// A file keeps its inode number for as long as it exists.
  bool lastingInodes = true;
  std::function<Clock::time_point()> now = &Clock::now;
};

class NameCache {
 public:
  explicit NameCache(NameCacheOptions options = {});

  // The tree (name_tree.cpp).

  Node& root() noexcept { return *mRoot; }
  Node* find(NodeId id);
  const Node* find(NodeId id) const;

  /// An entry of a directory, or null.
  Entries::value_type* findPlace(NodeId directory, std::string_view name);
  Entry* findEntry(NodeId directory, std::string_view name);

  /// The node of a name, created if it has none.
  Node& nodeAt(Node& directory, Entries::value_type& place);

  /// Whether the file is still somewhere in the tree.
  bool has(const Node& node) const noexcept;

  /// The path on the disk, or nothing when the file is gone.
  std::optional<std::string> path(const Node& node) const;

  /// Takes the name out of the tree. Its node, if any, lives on without a place until
  /// nobody refers to it.
  void remove(Node& directory, std::string_view name);
  /// To be called before that for what a program removed: others may have it open, and ask
  /// for its attributes.
  void keepRemoved(NodeId directory, std::string_view name);

  /// Gives an entry another name, replacing what is there.
  void move(NodeId from, std::string_view name, NodeId to, std::string_view newName);

  /// Frees the node, and those above it, if nobody refers to them any more.
  void releaseIfUnused(Node* node);

  /// Drops what was learned of names that nobody refers to, in directories that would be
  /// listed again.
  void dropUnused(Clock::time_point now);

  std::size_t size() const;                                    ///< names and nodes
  std::uint64_t dropped() const noexcept { return mDropped; }  ///< names and nodes, ever

  /// Calls `visit(node)` for every node with an open state.
  template <class Visit>
  void forEachOpen(Visit visit) {
    for (auto& [id, node] : mNodes) {
      if (node->open) visit(*node);
    }
  }

  // Learning from replies (name_learning.cpp).

  /// A query for one name: its attributes, or that the host refused. `epoch`: `linkEpoch`
  /// when the query was sent.
  void learn(NodeId directory, const std::string& name, const Result<udisk_stat>& result,
             std::uint64_t epoch);
  /// A directory's own attributes.
  void learnSelf(NodeId directory, const Result<udisk_stat>& result);
  /// A listing. What is not in it loses its place; a name that became a file of another
  /// type gets a new node.
  void learnListing(Node& directory, const Listing& listing, std::uint64_t epoch);
  /// A check found the directory unchanged.
  void confirm(Node& directory);
  /// The listing or check took so long.
  void setLifetime(Directory& directory, Clock::duration taken) const;
  /// We created it, so it is empty.
  void learnNewDirectory(Node& directory);
  /// A file whose creation is pending, with the attributes that are likely.
  Node& addPending(Node& directory, const std::string& name, std::uint32_t mode);

  /// Whether the entry's node, if any, can stand for a file with these attributes.
  bool fits(const Entry& entry, const udisk_stat& attributes) const;

  /// Changes with each request that may change a file with several names. The host serves
  /// in order, so what was queried since the last one is true.
  std::uint64_t linkEpoch() const noexcept { return mLinkEpoch; }
  std::uint64_t invalidateLinks() noexcept { return ++mLinkEpoch; }

  // Validity (name_cache.cpp).

  Clock::time_point now() const { return mOptions.now(); }
  std::chrono::milliseconds lifetime() const noexcept { return mOptions.lifetime; }
  bool isValid(const Directory& directory) const;
  bool isValid(const Node& directory, const Entry& entry) const;
  /// Whether only a query for this very file can return its attributes.
  bool isStale(const Entry& entry) const;
  /// For how long the kernel may use it without asking again.
  std::chrono::nanoseconds kernelValidity(const Node& directory, const Entry& entry) const;
  std::chrono::nanoseconds absenceValidity(const Directory& directory) const;
  std::chrono::nanoseconds selfValidity(const Directory& directory) const;
  /// Whether a check of the directory can find it unchanged, rather than a listing.
  bool canBeChecked(const Directory& directory) const;

  /// As programs see it: with what they wrote, and without silly names.
  udisk_stat shown(const Entry& entry) const;

  /// A file that is open goes on under this name; null when it is gone.
  Entry* markSilly(NodeId directory, const std::string& name);
  Entry* findSilly(NodeId directory, const std::string& name);

  // Spelling: disks that take "README" for "readme" (spelling.cpp).

  /// The name under which the disk shows the file that it takes `name` for.
  std::string spelling(const Node& directory, std::string_view name) const;
  /// A name whose other spelling shows how the disk takes names, and that spelling; nothing
  /// when that is known, or there is none.
  std::optional<std::pair<std::string, std::string>> spellingToTry(const Node& directory) const;
  void learnSpelling(const udisk_stat& known, const std::optional<udisk_stat>& other);
  bool ignoresCase() const noexcept { return mIgnoresCase == true; }

 private:
  bool isReplaced(const Entry& entry, const udisk_stat& attributes) const;
  std::chrono::nanoseconds validity(const Node& directory, const Entry& entry) const;
  std::uint64_t sillyNames(const Entry& entry) const;
  void detach(Entry& entry);
  Entries::iterator drop(Entries& entries, Entries::iterator at);
  void replaceSelf(Node& directory, const udisk_stat& attributes);

  const NameCacheOptions mOptions;
  std::unordered_map<NodeId, std::unique_ptr<Node>> mNodes;
  Node* mRoot;
  NodeId mLastId = kRootNode;
  std::uint64_t mDropped = 0;
  std::uint64_t mLinkEpoch = 0;
  std::vector<std::pair<NodeId, std::string>> mSillyPlaces;  ///< some may be gone
  std::optional<bool> mIgnoresCase;
};

/// The present as file times show it.
udisk_timespec wallClock();

}  // namespace zor::client
