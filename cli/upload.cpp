#include "cli/upload.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <utility>

#include "cli/format.h"
#include "cli/scanned_directory.h"
#include "client/exchange.h"

namespace zor::client::cli {

namespace {

constexpr std::size_t kUploadPiece = std::size_t{1} << 20;

/// As many directories are open on this machine at most while others are under way.
constexpr unsigned kMaxOpenDirs = 64;

/// How long an interrupted run waits until its temporary files are removed.
constexpr std::chrono::seconds kCleaningTime{3};

/// A path beside `path` that nobody else uses. It does not hold the name of `path`, so that
/// it is never longer than a name may be.
std::string temporaryBeside(const std::string& path) {
  static std::random_device source;
  std::array<char, 40> name;
  std::snprintf(name.data(), name.size(), ".udisk-remote.%08x%08x.part", source(), source());
  return joinPath(parentPath(path), name.data());
}

}  // namespace

void Upload::add(const std::string& localPath, std::string remotePath) {
  struct stat status {};
  if (::stat(localPath.c_str(), &status) != 0) return fail("send", localPath, localError());
  classify({localPath, std::move(remotePath), nullptr, status.st_mode & 0777U, nullptr}, status);
}

void Upload::classify(Source source, const struct stat& status) {
  const auto leaveOut = [&](const std::string& why) {
    ++mFailures;
    mContext.console.message("'" + source.localPath + "' is left out: " + why);
  };
  if (source.remotePath.size() > kMaxPath) {
    fail("send to", source.remotePath, pathTooLong());
  } else if (S_ISREG(status.st_mode)) {
    mProgress.expect(1, static_cast<std::uint64_t>(status.st_size));
    mFiles.push_back(std::move(source));
  } else if (!S_ISDIR(status.st_mode)) {
    leaveOut("a " + std::string(typeName(status.st_mode)) + " cannot be carried");
  } else if (!mRecursive) {
    leaveOut("it is a directory; use -r to send it");
  } else if (source.remotePath.find('\\') != std::string::npos) {
    leaveOut("the host takes the backslash in a directory's name for a separator");
  } else {
    mDirectories.push_back(std::move(source));
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
    if (!mWindow.empty() && LocalDir::count() + mEntering >= kMaxOpenDirs) return false;
    makeDirectory();
  } else if (!mModes->empty()) {
    setMode();
  } else {
    return false;
  }
  return true;
}

void Upload::makeDirectory() {
  Source source = std::move(mDirectories.back());
  mDirectories.pop_back();
  const std::string path = source.remotePath;
  const auto mode = static_cast<std::uint16_t>(source.mode | 0700U);
  ++mEntering;
  mContext.disk.makeDir(path, mode,
                        entered<Unit>(0, [this, source = std::move(source)](const Status& made) {
                          --mEntering;
                          if (!made)
                            return fail("make a directory of", source.remotePath, made.error());
                          enter(source);
                        }));
}

/// Classifies the contents of a directory that exists on the disk now.
void Upload::enter(const Source& source) {
  const auto directory =
      std::make_shared<Directory>(Mode{source.remotePath, source.mode}, mModes, source.parent);
  // What was a directory a moment ago may be a link by now.
  const auto local = source.dir
                         ? LocalDir::enter(*source.dir, std::string(baseName(source.localPath)))
                         : LocalDir::open(source.localPath);
  if (!local) return fail("read", source.localPath, local.error());
  const auto names = (*local)->names();
  if (!names) return fail("read", source.localPath, names.error());
  for (const std::string& name : *names) {
    std::string path = joinPath(source.localPath, name);
    struct stat status {};
    if (::fstatat((*local)->fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      fail("send", path, localError());
    } else {
      classify({std::move(path), joinPath(source.remotePath, name), *local, status.st_mode & 0777U,
                directory},
               status);
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
  transfer->source = std::move(mFiles.front());
  mFiles.pop_front();
  const Source& source = transfer->source;
  const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
  transfer->file = UniqueFd(source.dir ? ::openat(source.dir->fd(),
                                                  std::string(baseName(source.localPath)).c_str(),
                                                  flags | O_NOFOLLOW)
                                       : ::open(source.localPath.c_str(), flags));
  struct stat status {};
  if (!transfer->file || ::fstat(transfer->file.get(), &status) != 0) {
    return fail("send", source.localPath, localError());
  }
  if (!S_ISREG(status.st_mode)) {
    return fail("send", source.localPath, exchange::failed("it is not a file any more"));
  }
  transfer->source.dir.reset();
  transfer->size = status.st_size;
  transfer->temporary = temporaryBeside(source.remotePath);
  if (transfer->temporary.size() > kMaxPath) {
    return fail("send to", source.remotePath, pathTooLong());
  }
  mOpen.push_back(transfer);
  mWriting.push_back(transfer);
  // Requests are served in order: what is sent behind these needs not wait for them.
  transfer->inFlight += 2;
  mContext.disk.attributes(
      source.remotePath, entered<udisk_stat>(0, [this, transfer](const Result<udisk_stat>& found) {
        if (found && S_ISREG(found->st_mode)) {
          transfer->replaced = *found;
        } else if (found && !transfer->error) {
          transfer->error =
              Error{ErrorKind::kRefused,
                    "a " + std::string(typeName(found->st_mode)) + " is in its place on the disk"};
        } else if (!found && found.error().kind != ErrorKind::kFailed && !transfer->error) {
          transfer->error = found.error();
        }
        --transfer->inFlight;
        advance(transfer);
      }));
  mContext.disk.create(transfer->temporary, 0600,
                       entered<Unit>(0, [this, transfer](const Status& created) {
                         transfer->made = created || isFatal(created.error());
                         if (!created && !transfer->error) transfer->error = created.error();
                         --transfer->inFlight;
                         advance(transfer);
                       }));
}

/// Sends the next piece of a file. False when nothing had to be sent.
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
    advance(transfer);
    return false;
  }
  data.resize(have);
  const std::int64_t offset = transfer->offset;
  transfer->offset += static_cast<std::int64_t>(have);
  mProgress.moved(have);
  // The file on the disk is new and empty: pieces of zeros but the last need not
  // be written.
  const bool hole = !transfer->read && transfer->offset < transfer->size &&
                    data.data()[0] == std::byte{0} &&
                    std::memcmp(data.data(), data.data() + 1, have - 1) == 0;
  if (have > 0 && !hole) {
    ++transfer->inFlight;
    mContext.disk.write(transfer->temporary, offset, std::move(data),
                        entered<Unit>(have, [this, transfer](const Status& written) {
                          if (!written && !transfer->error) transfer->error = written.error();
                          --transfer->inFlight;
                          advance(transfer);
                        }));
  }
  advance(transfer);
  return have > 0 && !hole;
}

/// Goes on with a file for which no answer is outstanding.
void Upload::advance(const TransferPtr& transfer) {
  if (transfer->inFlight > 0 || transfer->renaming || mCleaningUp) return;
  if (transfer->error) {
    abandon(transfer);
  } else if (transfer->read) {
    commit(transfer);
  }
}

/// All of it is there: it gets its permission bits and its name. Nothing is renamed that has
/// not been confirmed, so this costs a round trip; others are under way meanwhile.
void Upload::commit(const TransferPtr& transfer) {
  transfer->renaming = true;
  transfer->file.reset();
  std::uint32_t mode = transfer->source.mode;
  if (const auto& replaced = transfer->replaced) {
    mode = replaced->st_mode & 0777U;
    // Fails unless the host runs as root and the file system keeps owners; then the file belongs
    // to the user of the host.
    mContext.disk.chown(transfer->temporary, replaced->st_uid, replaced->st_gid,
                        entered<Unit>(0, [](const Status&) {}));
  }
  mContext.disk.chmod(transfer->temporary, static_cast<std::uint16_t>(mode),
                      entered<Unit>(0, [this](const Status& set) {
                        if (!set && !isFatal(set.error())) ++mUnsetModes;
                      }));
  mContext.disk.rename(transfer->temporary, transfer->source.remotePath,
                       entered<Unit>(0, [this, transfer](const Status& renamed) {
                         if (renamed) {
                           std::erase(mOpen, transfer);
                           return mProgress.finished();
                         }
                         transfer->error = renamed.error();
                         transfer->renaming = false;
                         advance(transfer);
                       }));
}

void Upload::abandon(const TransferPtr& transfer) {
  transfer->file.reset();
  mProgress.undone(static_cast<std::uint64_t>(transfer->offset));
  Error error = *transfer->error;
  if (!isFatal(error)) {
    mRefusedData = mRefusedData || error.kind == ErrorKind::kFailed;
    if (transfer->replaced) error.message += "; the file on the disk is as it was";
    if (transfer->made) {
      removeTemporary(transfer);
    } else {
      std::erase(mOpen, transfer);
    }
  }
  fail("send", transfer->source.remotePath, error);
}

void Upload::removeTemporary(const TransferPtr& transfer) {
  mContext.disk.unlink(transfer->temporary,
                       entered<Unit>(0, [this, transfer](const Status& removed) {
                         if (removed || !transfer->made) std::erase(mOpen, transfer);
                       }));
}

/// Behind an interruption: also what is on its way now is removed, as requests are served in
/// order, and even when nobody waits for the answers any more.
void Upload::cleanUp() {
  mCleaningUp = true;
  for (const TransferPtr& transfer : mOpen) removeTemporary(transfer);
  mContext.loop.cleanUp(kCleaningTime, [this] { return mWindow.empty(); });
}

/// Hosts give no reasons, but two can be found out.
void Upload::explainFailure() {
  const auto found = mContext.disk.statfs("/");
  if (!found && found.error().kind == ErrorKind::kUnreadable) {
    mContext.console.message(found.error().message);
  } else if (found && found->f_bavail == 0) {
    mContext.console.message("the disk is full");
  }
}

void Upload::conclude() {
  if (mContext.loop.signal() != 0) {
    cleanUp();
  } else if (mRefusedData) {
    explainFailure();
  }
  for (const TransferPtr& transfer : mOpen) {
    if (!transfer->made || (transfer->renaming && !transfer->error)) continue;
    mContext.console.message("an incomplete copy of '" + transfer->source.remotePath +
                             "' may be left on the disk: '" + transfer->temporary + "'");
  }
  if (mUnsetModes > 0) {
    mContext.console.message("the permission bits of " + counted(mUnsetModes, "file") +
                             " could not be set; the disk may not keep them");
  }
  TransferRun::conclude();
}

}  // namespace zor::client::cli
