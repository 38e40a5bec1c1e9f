// rm
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <vector>

#include "cli/command.h"
#include "cli/format.h"
#include "cli/scanned_directory.h"
#include "cli/transfer_run.h"

namespace zor::client::cli {

namespace {

struct RemoveOptions {
  bool recursive = false;
  bool force = false;
  std::vector<std::string> paths;
};

/// Removes trees from their leaves upwards.
class Removal final : public TransferRun {
 public:
  explicit Removal(CommandContext& context) : TransferRun(context, "removed") {}

  void add(const std::string& path, std::uint32_t mode) {
    mNames.push_back({nullptr, path, S_ISDIR(mode)});
  }

 private:
  struct Directory : ScannedDirectory {
    Directory(std::string path, std::shared_ptr<Directory> above)
        : ScannedDirectory(std::move(path)), parent(std::move(above)) {}
    std::shared_ptr<Directory> parent;
    std::size_t left = 0;    ///< entries that are still there
    bool stays = false;      ///< because something in it does
    bool postponed = false;  ///< too much was waiting when it was listed first
  };
  using DirectoryPtr = std::shared_ptr<Directory>;

  /// A name that waits for its turn.
  struct Name {
    DirectoryPtr parent;
    std::string name;  ///< the whole path when there is no parent
    bool directory = false;
    std::string path() const { return parent ? parent->pathOf(name) : name; }
  };

  bool makeRequest() override {
    if (!mWindow.fits(0)) return false;
    if (!mEmpty.empty()) {
      removeEmpty();
    } else if (!mNames.empty()) {
      if (mNames.back().directory && !mayList()) return false;
      const Name next = std::move(mNames.back());
      mNames.pop_back();
      if (next.directory) {
        list(std::make_shared<Directory>(next.path(), next.parent));
      } else {
        unlink(next);
      }
    } else if (!mPostponed.empty() && mWindow.empty()) {
      const DirectoryPtr directory = std::move(mPostponed.back());
      mPostponed.pop_back();
      list(directory);
    } else {
      return false;
    }
    return true;
  }

  bool mayList() const {
    return mListings == 0 || (!ScannedDirectory::overBudget() && mWindow.fits(mListingSize));
  }

  void unlink(const Name& next) {
    std::string path = next.path();
    mContext.disk.unlink(path,
                         entered<Unit>(0, [this, path, parent = next.parent](const Status& status) {
                           removed(path, parent, status);
                         }));
  }

  void list(const DirectoryPtr& directory) {
    ++mListings;
    mContext.disk.list(
        directory->path(),
        entered<Listing>(mListingSize, [this, directory](const Result<Listing>& listing) {
          --mListings;
          listed(directory, listing);
        }));
  }

  /// A listing had this size: most likely the next ones are like the last few.
  void expectListings(std::uint64_t size) {
    mListingSize = std::min((3 * mListingSize + size) / 4, Window::kMaxBytes);
  }

  void listed(const DirectoryPtr& directory, const Result<Listing>& listing) {
    if (!listing) return removed(directory->path(), directory->parent, listing.error());
    expectListings(listing->entries().size() * sizeof(wire::DirEntry));
    if (const Status held = directory->hold(*listing, sizeof(Name)); !held) {
      if (directory->postponed) return removed(directory->path(), directory->parent, held);
      directory->postponed = true;
      return mPostponed.push_back(directory);
    }
    for (const wire::DirEntry& entry : listing->entries()) {
      if (isDotEntry(entry.name)) continue;
      if (directory->reaches(entry.name)) {
        ++directory->left;
        mNames.push_back({directory, std::string(entry.name), S_ISDIR(entry.attributes.st_mode)});
      } else {
        fail("remove", directory->pathOf(entry.name), pathTooLong());
        directory->stays = true;
      }
    }
    if (directory->left > 0) return;
    if (!directory->stays) {
      mEmpty.push_back(directory);
    } else {
      entryFinished(directory->parent, true);
    }
  }

  void removeEmpty() {
    const DirectoryPtr directory = std::move(mEmpty.back());
    mEmpty.pop_back();
    mContext.disk.removeDir(directory->path(),
                            entered<Unit>(0, [this, directory](const Status& status) {
                              removed(directory->path(), directory->parent, status);
                            }));
  }

  /// A name is gone, or could not be removed.
  void removed(const std::string& path, const DirectoryPtr& parent, const Status& status) {
    if (status) {
      ++mRemoved;
    } else {
      fail("remove", path, status.error());
    }
    entryFinished(parent, !status);
  }

  /// One name in `parent` needs no more work.
  void entryFinished(DirectoryPtr parent, bool stays) {
    for (; parent; parent = parent->parent) {
      parent->stays = parent->stays || stays;
      if (--parent->left > 0) return;
      if (!parent->stays) return mEmpty.push_back(parent);
      stays = true;
    }
  }

  void conclude() override {
    const bool incomplete = mFailures > 0 || mContext.loop.signal() != 0;
    if (incomplete && mRemoved > 0) {
      mContext.console.message("removed " + counted(mRemoved, "name") + "; " +
                               counted(mFailures, "failure"));
    }
  }

  std::vector<Name> mNames;
  std::vector<DirectoryPtr> mEmpty;      ///< to be removed
  std::vector<DirectoryPtr> mPostponed;  ///< to be listed when nothing else is waiting
  unsigned mListings = 0;                ///< in flight
  std::uint64_t mListingSize = std::uint64_t{512} << 10;  ///< expected of each
  std::uint64_t mRemoved = 0;
};

bool runRemove(CommandContext& context, const RemoveOptions& options) {
  Removal removal(context);
  struct Found {
    std::string path;
    Result<udisk_stat> attributes;
  };
  std::vector<Found> found;
  for (const std::string& typed : options.paths) {
    const std::string path = normalPath(typed);
    found.push_back({path, context.disk.attributes(path)});
  }
  context.loop.catchSignals();
  for (const auto& [path, attributes] : found) {
    if (path == "/") {
      removal.fail("remove", path, {ErrorKind::kRefused, "it is the whole disk"});
    } else if (!attributes) {
      const bool missing = attributes.error().kind == ErrorKind::kFailed;
      if (!options.force || !missing) removal.fail("remove", path, attributes.error());
    } else if (S_ISDIR(attributes->st_mode) && !options.recursive) {
      removal.fail("remove", path, {ErrorKind::kRefused, "it is a directory; use -r"});
    } else {
      removal.add(path, attributes->st_mode);
    }
  }
  return removal.run();
}

}  // namespace

void addRemove(CLI::App& app, Subcommand& chosen) {
  auto options = std::make_shared<RemoveOptions>();
  CLI::App* command = app.add_subcommand("rm", "Removes files, and symbolic links themselves");
  command->add_flag("-r,-R,--recursive", options->recursive,
                    "remove directories with all files in them");
  command->add_flag("-f,--force", options->force, "ignore names that do not exist");
  command->add_option("PATH", options->paths, "the files to remove")->required();
  command->callback([options, &chosen] {
    chosen = {[options](CommandContext& context) { return runRemove(context, *options); }, true};
  });
}

}  // namespace zor::client::cli
