// Which files are fetched, and in which order requests are made.
#include "cli/download.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "cli/format.h"

namespace zor::client::cli {

namespace {

constexpr unsigned kMaxListings = 16;
constexpr std::size_t kEnoughFiles = 1024;  ///< known and waiting: no more are listed
constexpr unsigned kEnoughDirs = 256;       ///< open on this machine: the same

}  // namespace

Download::Download(CommandContext& context, DownloadOptions options)
    : TransferRun(context, "fetched"), mOptions(options) {}

const std::string& Download::Source::resolve() {
  if (above) {
    path = above->pathOf(name);
    above.reset();
  }
  return path;
}

void Download::add(std::string path, const udisk_stat& attributes, std::shared_ptr<LocalDir> dir,
                   std::string name) {
  classify({std::move(path), attributes, std::move(dir), std::move(name), nullptr});
}

void Download::classify(Source source) {
  const udisk_stat& attributes = source.attributes;
  if (attributes.st_mode == 0) {
    mUnknown.push_back(std::move(source));
  } else if (S_ISREG(attributes.st_mode) && attributes.st_size >= 0) {
    if (!mayReplace(source)) return;
    mProgress.expect(1, static_cast<std::uint64_t>(attributes.st_size));
    const bool batched = mOptions.batches && attributes.st_size <= kSmallFile;
    (batched ? mSmallFiles : mFiles).push_back(std::move(source));
  } else if (S_ISDIR(attributes.st_mode) && mOptions.recursive) {
    mDirectories.push_back({std::move(source), nullptr});
  } else {
    ++mFailures;
    mContext.console.message(
        "'" + source.resolve() + "' is left out: " +
        (S_ISDIR(attributes.st_mode)
             ? "it is a directory; use -r to fetch it"
             : "a " + std::string(typeName(attributes.st_mode)) + " cannot be carried"));
  }
}

/// Whether nothing is lost by fetching this file, or may be.
bool Download::mayReplace(Source& source) {
  if (!mOptions.keepExisting && !mOptions.ask) return true;
  if (::faccessat(source.dir->fd(), source.name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) {
    source.mustBeNew = true;
    return true;
  }
  if (mOptions.ask && mContext.loop.signal() == 0 &&
      mContext.console.confirm("replace '" + source.name + "'?")) {
    return true;
  }
  mContext.console.message("'" + source.name + "' is left as it is");
  return false;
}

void Download::addContents(std::string path, std::shared_ptr<LocalDir> dir) {
  mDirectories.push_back({{std::move(path), {}, nullptr, {}, nullptr}, std::move(dir)});
}

bool Download::makeRequest() { return read() || examine() || list(); }

bool Download::list() {
  const std::size_t waiting = mFiles.size() + mSmallFiles.size();
  const bool enough =
      waiting >= kEnoughFiles || LocalDir::count() >= kEnoughDirs || ScannedDirectory::overBudget();
  std::vector<Directory>& queue = mDirectories.empty() ? mPostponed : mDirectories;
  if (queue.empty() || mListings >= kMaxListings) return false;
  if ((enough || &queue == &mPostponed) && !mWindow.empty()) return false;
  Directory directory = std::move(queue.back());
  queue.pop_back();
  Source& source = directory.source;
  source.resolve();
  if (!directory.local) {
    auto made = LocalDir::make(std::move(source.dir), source.name, source.attributes);
    if (!made) {
      fail("make a directory for", source.path, made.error());
      return true;
    }
    directory.local = std::move(*made);
  }
  ++mListings;
  const std::string path = source.path;
  mContext.disk.list(
      path,
      entered<Listing>(0, [this, directory = std::move(directory)](const Result<Listing>& listing) {
        --mListings;
        listed(directory, listing);
      }));
  return true;
}

void Download::listed(Directory from, const Result<Listing>& listing) {
  const std::string& path = from.source.path;
  const std::shared_ptr<LocalDir>& dir = from.local;
  if (!listing) return fail("list", path, listing.error());
  const auto directory = std::make_shared<ScannedDirectory>(path);
  const Status held = directory->hold(*listing, sizeof(Directory));
  if (!held && from.postponed) return fail("fetch all in", path, held.error());
  if (!held) {
    from.postponed = true;
    return mPostponed.push_back(std::move(from));
  }
  for (const wire::DirEntry& entry : listing->entries()) {
    if (isDotEntry(entry.name)) continue;
    if (directory->reaches(entry.name)) {
      classify({{}, entry.attributes, dir, std::string(entry.name), directory});
    } else {
      fail("fetch", directory->pathOf(entry.name), pathTooLong());
    }
  }
}

/// For a listed name whose attributes did not come with the listing.
bool Download::examine() {
  if (mUnknown.empty() || !mWindow.fits(0)) return false;
  Source source = std::move(mUnknown.back());
  mUnknown.pop_back();
  ++mListings;
  const std::string path = source.resolve();
  mContext.disk.attributes(
      path, entered<udisk_stat>(0, [this, source = std::move(source)](Result<udisk_stat> found) {
        --mListings;
        if (found && found->st_mode == 0) {
          found = Error{ErrorKind::kFailed, "the host reports no attributes for it"};
        }
        if (!found) return fail("fetch", source.path, found.error());
        add(source.path, *found, source.dir, source.name);
      }));
  return true;
}

bool Download::read() {
  if (batchReady() && mWindow.fits(kBatchBytes)) {
    askBatch();
    return true;
  }
  if (!mCurrent || mCurrent->fullyAsked()) {
    if (!mAgain.empty()) {
      mCurrent = std::move(mAgain.back());
      mAgain.pop_back();
    } else if (!mFiles.empty()) {
      mCurrent = begin(mFiles);
    } else {
      return false;
    }
  }
  const std::uint32_t size = nextSize(*mCurrent);
  if (!mWindow.fits(size)) return false;
  askNext(mCurrent, size);
  return true;
}

/// Whether a batch is full, or will not become fuller by itself.
bool Download::batchReady() const {
  return mSmallFiles.size() >= kBatchFiles ||
         (!mSmallFiles.empty() && mListings == 0 && mUnknown.empty() &&
          (mDirectories.empty() || LocalDir::count() >= kEnoughDirs));
}

}  // namespace zor::client::cli
