// Which files are fetched, and in which order requests are made.
#include "download.h"

#include <sys/stat.h>

#include <utility>

#include "text.h"

namespace zor::remote::cli {

namespace {

constexpr unsigned kMaxListings = 16;
constexpr std::size_t kEnoughFiles = 1024;  ///< known and waiting: no more are looked for

}  // namespace

Download::Download(Context& context, DownloadOptions options)
    : mContext(context), mOptions(options), mProgress(context.console) {}

void Download::add(std::string path, const udisk_stat& attributes, std::shared_ptr<LocalDir> dir,
                   std::string name) {
  Source source{std::move(path), attributes, std::move(dir), std::move(name)};
  if (attributes.st_mode == 0) return examine(std::move(source));
  if (S_ISREG(attributes.st_mode) && attributes.st_size >= 0) {
    mProgress.expect(1, static_cast<std::uint64_t>(attributes.st_size));
    const bool batched = mOptions.batches && attributes.st_size <= kSmallFile;
    (batched ? mSmallFiles : mFiles).push_back(std::move(source));
  } else if (S_ISDIR(attributes.st_mode) && mOptions.recursive) {
    auto made = LocalDir::make(source.dir, source.name, attributes);
    if (!made) return fail("make a directory for", source.path, made.error());
    addContents(std::move(source.path), std::move(*made));
  } else {
    ++mFailures;
    mContext.console.message(
        "'" + source.path + "' is left out: " +
        (S_ISDIR(attributes.st_mode)
             ? "it is a directory; use -r to fetch it"
             : "a " + std::string(typeName(attributes.st_mode)) + " cannot be carried"));
  }
}

void Download::addContents(std::string path, std::shared_ptr<LocalDir> dir) {
  mDirectories.push_back({std::move(path), std::move(dir)});
}

void Download::fail(std::string_view what, std::string_view path, const Error& error) {
  ++mFailures;
  if (!isFatal(error)) {
    report(mContext, what, path, error);
  } else if (!mLost) {
    mLost = error;
    mContext.console.message("stopped: " + error.message);
  }
}

bool Download::run() {
  for (;;) {
    pump();
    if (mWindow.empty() && mListings == 0) break;
    if (!mContext.loop.runOne()) {
      mContext.console.message("interrupted");
      mProgress.summary("fetched", mFailures);
      return false;
    }
  }
  mProgress.summary("fetched", mFailures);
  return mFailures == 0;
}

void Download::pump() {
  while (!mLost && pumpReads()) {
  }
  while (!mLost && mListings < kMaxListings && !mDirectories.empty() &&
         mFiles.size() + mSmallFiles.size() < kEnoughFiles) {
    list();
  }
}

void Download::list() {
  Directory directory = std::move(mDirectories.back());
  mDirectories.pop_back();
  ++mListings;
  const std::string path = directory.path;
  mContext.disk.list(path, onLoop<Listing>(mContext.loop, [this, directory = std::move(directory)](
                                                              Result<Listing> listing) {
                       --mListings;
                       listed(directory.path, directory.dir, std::move(listing));
                     }));
}

void Download::listed(const std::string& path, const std::shared_ptr<LocalDir>& dir,
                      Result<Listing> listing) {
  if (!listing) return fail("list", path, listing.error());
  for (const wire::DirEntry& entry : listing->entries()) {
    if (isDotEntry(entry.name)) continue;
    add(joinPath(path, entry.name), entry.attributes, dir, std::string(entry.name));
  }
}

/// For a listed name whose attributes did not come with the listing.
void Download::examine(Source source) {
  ++mListings;
  const std::string path = source.path;
  mContext.disk.attributes(
      path, onLoop<udisk_stat>(
                mContext.loop, [this, source = std::move(source)](Result<udisk_stat> found) {
                  --mListings;
                  if (found && found->st_mode == 0) {
                    found = Error{ErrorKind::kFailed, "the host does not tell what it is"};
                  }
                  if (!found) return fail("fetch", source.path, found.error());
                  add(source.path, *found, source.dir, source.name);
                }));
}

/// Makes the next request that fits; false when there is none.
bool Download::pumpReads() {
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
         (!mSmallFiles.empty() && mListings == 0 && mDirectories.empty());
}

}  // namespace zor::remote::cli
