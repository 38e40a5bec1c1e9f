// rm
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <vector>

#include "command.h"
#include "text.h"
#include "transfer_run.h"

namespace zor::remote::cli {

namespace {

struct RemoveOptions {
  bool recursive = false;
  bool force = false;
  std::vector<std::string> paths;
};

/// Removes trees from their leaves upwards.
class Removal final : public TransferRun {
 public:
  explicit Removal(Context& context) : TransferRun(context, "removed") {}

  void add(const std::string& path, std::uint32_t mode) { add(path, mode, nullptr); }

 private:
  struct Directory {
    std::string path;
    std::shared_ptr<Directory> parent;
    std::size_t left = 0;  ///< entries that are still there
    bool stays = false;    ///< because something in it does
  };
  using DirectoryPtr = std::shared_ptr<Directory>;

  void add(const std::string& path, std::uint32_t mode, const DirectoryPtr& parent) {
    if (S_ISDIR(mode)) {
      auto directory = std::make_shared<Directory>(Directory{path, parent});
      mWork.emplace_back([this, directory] { list(directory); });
    } else {
      mWork.emplace_back([this, path, parent] {
        mContext.disk.unlink(path, entered<Unit>(0, [this, path, parent](const Status& status) {
                               removed(path, parent, status);
                             }));
      });
    }
  }

  bool makeRequest() override {
    if (mWork.empty() || !mWindow.fits(0)) return false;
    const auto work = std::move(mWork.back());
    mWork.pop_back();
    work();
    return true;
  }

  void list(const DirectoryPtr& directory) {
    mContext.disk.list(
        directory->path, entered<Listing>(0, [this, directory](const Result<Listing>& listing) {
          if (!listing) return removed(directory->path, directory->parent, listing.error());
          for (const wire::DirEntry& entry : listing->entries()) {
            if (isDotEntry(entry.name)) continue;
            ++directory->left;
            add(joinPath(directory->path, entry.name), entry.attributes.st_mode, directory);
          }
          if (directory->left == 0) removeEmpty(directory);
        }));
  }

  void removeEmpty(const DirectoryPtr& directory) {
    mWork.emplace_back([this, directory] {
      mContext.disk.removeDir(directory->path,
                              entered<Unit>(0, [this, directory](const Status& status) {
                                removed(directory->path, directory->parent, status);
                              }));
    });
  }

  /// A name is gone, or could not be removed.
  void removed(const std::string& path, DirectoryPtr parent, const Status& status) {
    if (status) {
      ++mRemoved;
    } else {
      fail("remove", path, status.error());
    }
    for (bool stays = !status; parent; parent = parent->parent) {
      parent->stays = parent->stays || stays;
      if (--parent->left > 0) return;
      if (!parent->stays) return removeEmpty(parent);
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

  std::vector<std::function<void()>> mWork;
  std::uint64_t mRemoved = 0;
};

bool runRemove(Context& context, const RemoveOptions& options) {
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

void addRemove(CLI::App& app, Command& chosen) {
  auto options = std::make_shared<RemoveOptions>();
  CLI::App* command = app.add_subcommand("rm", "Removes files; links are not followed");
  command->add_flag("-r,-R,--recursive", options->recursive, "remove directories and all in them");
  command->add_flag("-f,--force", options->force, "do not mind names that do not exist");
  command->add_option("PATH", options->paths, "what to remove")->required();
  command->callback([options, &chosen] {
    chosen = {[options](Context& context) { return runRemove(context, *options); }, true};
  });
}

}  // namespace zor::remote::cli
