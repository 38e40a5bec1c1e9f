#include "upload.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "local_names.h"
#include "local_tree.h"
#include "text.h"
#include "walked_directory.h"

namespace zor::remote::cli {

namespace {

constexpr std::size_t kUploadPiece = std::size_t{1} << 20;

}  // namespace

Result<std::vector<std::string>> namesIn(const std::string& path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), ::closedir);
  if (!dir) return localError();
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    if (!isDotEntry(entry->d_name)) names.emplace_back(entry->d_name);
  }
  if (errno != 0) return localError();
  std::sort(names.begin(), names.end());
  return names;
}

void Upload::add(const std::string& localPath, std::string remotePath) {
  struct stat status {};
  if (::stat(localPath.c_str(), &status) != 0) return fail("send", localPath, localError());
  sort(localPath, std::move(remotePath), status, nullptr);
}

void Upload::sort(std::string localPath, std::string remotePath, const struct stat& status,
                  std::shared_ptr<Directory> parent) {
  Item item{std::move(localPath), std::move(remotePath), status.st_mode & 0777U, std::move(parent)};
  const auto leaveOut = [&](const std::string& why) {
    ++mFailures;
    mContext.console.message("'" + item.localPath + "' is left out: " + why);
  };
  if (item.remotePath.size() > kLongestPath) {
    fail("send to", item.remotePath, pathTooLong());
  } else if (S_ISREG(status.st_mode)) {
    mProgress.expect(1, static_cast<std::uint64_t>(status.st_size));
    mFiles.push_back(std::move(item));
  } else if (!S_ISDIR(status.st_mode)) {
    leaveOut("a " + std::string(typeName(status.st_mode)) + " cannot be carried");
  } else if (!mRecursive) {
    leaveOut("it is a directory; use -r to send it");
  } else if (item.remotePath.find('\\') != std::string::npos) {
    leaveOut("the host takes the backslash in a directory's name for a separator");
  } else {
    mDirectories.push_back(std::move(item));
  }
}

bool Upload::makeRequest() {
  if (!mWindow.fits(kUploadPiece)) return false;
  while (!mWriting.empty()) {
    const TransferPtr transfer = mWriting.front();
    const bool sent = !transfer->error && sendPiece(transfer);
    if (transfer->read || transfer->error) mWriting.pop_front();
    if (sent) return true;
  }
  if (!mFiles.empty()) {
    create();
  } else if (!mDirectories.empty()) {
    makeDirectory();
  } else if (!mModes->empty()) {
    setMode();
  } else {
    return false;
  }
  return true;
}

void Upload::makeDirectory() {
  Item item = std::move(mDirectories.back());
  mDirectories.pop_back();
  const std::string path = item.remotePath;
  const auto mode = static_cast<std::uint16_t>(item.mode | 0700U);
  mContext.disk.makeDir(path, mode,
                        entered<Unit>(0, [this, item = std::move(item)](const Status& made) {
                          if (!made)
                            return fail("make a directory of", item.remotePath, made.error());
                          enter(item);
                        }));
}

/// What is in a directory that exists over there now.
void Upload::enter(const Item& item) {
  const auto directory =
      std::make_shared<Directory>(Mode{item.remotePath, item.mode}, mModes, item.parent);
  const auto names = namesIn(item.localPath);
  if (!names) return fail("read", item.localPath, names.error());
  for (const std::string& name : *names) {
    std::string local = joinPath(item.localPath, name);
    struct stat status {};
    if (::lstat(local.c_str(), &status) != 0) {
      fail("send", local, localError());
    } else {
      sort(std::move(local), joinPath(item.remotePath, name), status, directory);
    }
  }
}

void Upload::setMode() {
  const Mode mode = std::move(mModes->back());
  mModes->pop_back();
  mContext.disk.chmod(mode.path, static_cast<std::uint16_t>(mode.mode),
                      entered<Unit>(0, [this, path = mode.path](const Status& set) {
                        if (set) return;
                        if (isFatal(set.error())) return fail("change", path, set.error());
                        ++mUnsetModes;
                      }));
}

void Upload::create() {
  auto transfer = std::make_shared<Transfer>();
  transfer->item = std::move(mFiles.front());
  mFiles.pop_front();
  const Item& item = transfer->item;
  // What was a file a moment ago may be a link or a pipe by now.
  const int noFollow = item.parent ? O_NOFOLLOW : 0;
  transfer->file =
      UniqueFd(::open(item.localPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | noFollow));
  struct stat status {};
  if (!transfer->file || ::fstat(transfer->file.get(), &status) != 0) {
    return fail("send", item.localPath, localError());
  }
  if (!S_ISREG(status.st_mode)) {
    return fail("send", item.localPath, {ErrorKind::kFailed, "it is not a file any more"});
  }
  transfer->size = status.st_size;
  // Writing goes by name later on, so the owner must be allowed to.
  mContext.disk.create(item.remotePath, item.mode | 0600U,
                       entered<Unit>(0, [this, transfer](const Status& created) {
                         if (!created) {
                           return fail("send", transfer->item.remotePath, created.error());
                         }
                         mOpen.push_back(transfer);
                         mWriting.push_back(transfer);
                       }));
}

/// Sends the next piece of a file, or its mode behind the last one. False when
/// nothing had to be sent.
bool Upload::sendPiece(const TransferPtr& transfer) {
  // A byte more than there should be, to see the end.
  const std::int64_t left = std::max<std::int64_t>(transfer->size - transfer->offset, 0) + 1;
  Buffer data(std::min(static_cast<std::size_t>(left), kUploadPiece));
  std::size_t have = 0;
  while (have < data.size()) {
    const ssize_t got =
        ::pread(transfer->file.get(), data.data() + have, data.size() - have,
                static_cast<off_t>(transfer->offset + static_cast<std::int64_t>(have)));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) transfer->error = localError();
    if (got <= 0) break;
    have += static_cast<std::size_t>(got);
  }
  transfer->read = have < data.size();
  if (transfer->error) {
    if (transfer->inFlight == 0) finish(transfer);
    return false;
  }
  data.resize(have);
  const std::int64_t offset = transfer->offset;
  transfer->offset += static_cast<std::int64_t>(have);
  mProgress.moved(have);
  // The file is new and empty over there: pieces of zeros but the last need not
  // be written.
  const bool hole = !transfer->read && transfer->offset < transfer->size &&
                    data.data()[0] == std::byte{0} &&
                    std::memcmp(data.data(), data.data() + 1, have - 1) == 0;
  const auto answered = [this, transfer](const Status& status) {
    --transfer->inFlight;
    if (!status && !transfer->error) transfer->error = status.error();
    if (transfer->inFlight == 0 && (transfer->read || transfer->error)) finish(transfer);
  };
  const std::string& path = transfer->item.remotePath;
  if (have > 0 && !hole) {
    ++transfer->inFlight;
    mContext.disk.write(path, offset, std::move(data), entered<Unit>(have, answered));
  }
  if (transfer->read) {
    // Requests are served in order: no need to wait for the writes.
    ++transfer->inFlight;
    mContext.disk.chmod(path, static_cast<std::uint16_t>(transfer->item.mode),
                        entered<Unit>(0, [this, answered](const Status& set) {
                          const bool ignored = !set && !isFatal(set.error());
                          if (ignored) ++mUnsetModes;
                          answered(ignored ? Status(Unit{}) : set);
                        }));
  }
  return true;
}

void Upload::finish(const TransferPtr& transfer) {
  mOpen.erase(std::find(mOpen.begin(), mOpen.end(), transfer));
  transfer->file.reset();
  transfer->item.parent.reset();
  if (!transfer->error) return mProgress.finished();
  mProgress.undone(static_cast<std::uint64_t>(transfer->offset));
  Error error = *transfer->error;
  if (!isFatal(error)) error.message += "; the file on the disk is incomplete";
  fail("send all of", transfer->item.remotePath, error);
}

void Upload::conclude() {
  for (const TransferPtr& transfer : mOpen) {
    mContext.console.message("'" + transfer->item.remotePath + "' on the disk is incomplete");
  }
  if (mUnsetModes > 0) {
    mContext.console.message("the permission bits of " + counted(mUnsetModes, "file") +
                             " could not be set; the disk may not keep them");
  }
  TransferRun::conclude();
}

}  // namespace zor::remote::cli
