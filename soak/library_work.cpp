#include <sys/stat.h>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "client/durable_link.h"
#include "client/exchange.h"
#include "client/set_length.h"
#include "workers.h"

namespace zor::soak {
namespace {

using namespace zor::client;

constexpr std::uint32_t kReadAll = 1 << 20;  ///< more than any file here has
constexpr std::array<const char*, 4> kDirectories{"", "/a", "/a/b", "/Grüße"};

std::string text(wire::Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

class LibraryWork {
 public:
  explicit LibraryWork(Worker& worker)
      : mWorker(worker), mDice(worker.dice), mLink(open()), mDisk(*mLink) {
    for (const char* directory : kDirectories)
      (void)mDisk.makeDir(directory + std::string("/"), 0755);
  }

  void step() {
    mMark = mWorker.rig.state.mark();
    const std::uint64_t roll = mDice.roll(100);
    if (roll < 60) return burst();
    if (roll < 70) return remove(anyPath());
    if (roll < 82) return rename(anyPath(), anyPath());
    if (roll < 86) return linkAndRemove(anyPath(), anyPath());
    if (roll < 92) return makeAndRemoveDirectory();
    if (roll < 97) return listAndCheck();
    if (roll < 98) return changeBigLength();
    if (roll < 99) return loseMountPoint();
    verify();
  }

  void verify() {
    for (const auto& [path, contents] : mFiles) compare(path, contents);
  }

 private:
  using Versions = std::vector<std::string>;  ///< of one file, in one burst
  using Model = std::map<std::string, std::string>;

  std::unique_ptr<DurableLink> open() {
    DurableLinkOptions options;
    options.connection.socketPath = mWorker.rig.libraryPart.socket();
    options.connection.bandwidthKbit = 400000;
    options.report = [this](const std::string& clause) {
      ++mLosses;
      mWorker.journal.add("link: " + clause);
    };
    for (;;) {
      auto link = DurableLink::open(options);
      if (link) return std::move(*link);
      if (!pauseFor(mWorker.ending, std::chrono::milliseconds(100))) {
        throw Difference(link.error().message);
      }
    }
  }

  std::string anyPath() {
    const std::string directory = kDirectories[mDice.roll(kDirectories.size())];
    return directory + "/f" + std::to_string(mDice.roll(6)) + (mDice.roll(2) == 0 ? ".doc" : "");
  }
  bool held() const { return mWorker.rig.state.heldSince(mMark); }
  void log(const std::string& what) { mWorker.journal.add(what); }

  /// A callback whose outcome is checked once the whole burst is answered, by
  /// `check(value)`, which returns a complaint or nothing.
  template <class T, class Check>
  Callback<T> expecting(const std::string& path, const std::string& what, Check check) {
    log(what + " " + path);
    ++mUnanswered;
    return [this, path, what, check](Result<T> result) {
      auto kept = std::make_shared<Result<T>>(std::move(result));
      const MutexLock lock(mMutex);
      mArrived.push_back([this, path, what, check, kept] {
        if (*kept) {
          const std::string wrong = check(**kept);
          if (!wrong.empty()) throw Difference(what + " " + path + ": " + wrong);
        } else if (kept->error().kind != ErrorKind::kFailed || held()) {
          throw Difference(what + " " + path + ": " + kept->error().message);
        } else {
          mDoubtful.insert(path);
        }
      });
      if (--mUnanswered == 0) mAnswered.notifyOne();
    };
  }
  Callback<Unit> succeeding(const std::string& path, const std::string& what) {
    return expecting<Unit>(path, what, [](const Unit&) { return std::string(); });
  }

  /// Many requests in flight at once.
  void burst() {
    mLossesBefore = mLosses;
    mVersions.clear();
    std::vector<std::string> paths;
    for (int i = 0; i < 3; ++i) paths.push_back(anyPath());
    for (std::uint64_t left = 1 + mDice.roll(24); left > 0; --left) {
      const std::string& path = paths[mDice.roll(paths.size())];
      mVersions.try_emplace(path, mFiles.count(path) != 0 ? Versions{mFiles[path]} : Versions());
      if (mFiles.count(path) == 0 || mDice.roll(20) == 0) {
        mDisk.create(path, 0644, succeeding(path, "create"));
        mFiles[path].clear();
      } else {
        request(path, mFiles[path]);
      }
      mVersions[path].push_back(mFiles[path]);
    }
    std::vector<std::function<void()>> arrived;
    {
      const MutexLock lock(mMutex);
      while (mUnanswered != 0) mAnswered.wait(mMutex);
      arrived.swap(mArrived);
    }
    mDoubtful.clear();
    for (const auto& check : arrived) check();
    for (const auto& [path, versions] : mVersions) settle(path, versions);
  }

  void request(const std::string& path, std::string& model) {
    const std::size_t offset = mDice.roll(100000);
    const std::string data =
        mDice.bytes(mDice.roll(3) == 0 ? mDice.roll(100000) : mDice.roll(2000));
    const auto position = static_cast<std::int64_t>(offset);
    const std::string where = std::to_string(data.size()) + " at " + std::to_string(offset) + " of";
    switch (mDice.roll(14)) {
      default:
        put(model, offset, data);
        return mDisk.write(path, position, Buffer(data), succeeding(path, "write " + where));
      case 0: {
        const std::string more = data.substr(data.size() / 2);
        put(model, offset, data);
        mVersions[path].push_back(model);  // a full disk may take the first half
        put(model, 0, more);
        return mDisk.writeBatch(
            path, {{position, std::as_bytes(std::span(data))}, {0, std::as_bytes(std::span(more))}},
            succeeding(path, "write batch " + where));
      }
      case 1:
        model.resize(offset);
        return mDisk.truncate(path, offset,
                              succeeding(path, "truncate to " + std::to_string(offset)));
      case 2:
      case 3:
      case 4:
        return mDisk.read(path, position, 5000,
                          expecting<FileData>(path, "read 5000 at " + std::to_string(offset),
                                              reading(path, model, offset, 5000)));
      case 5: {
        const auto whole = reading(path, model, 0, 30000);
        return mDisk.readSmallFiles(
            {{path, 0, 30000}, {"/none", 0, 10}},
            expecting<FilePieces>(path, "batch read", [whole](const FilePieces& found) {
              return !found.pieces[1].empty() ? "a file that is not there has contents"
                                              : whole(found.pieces[0]);
            }));
      }
      case 6:
        return mDisk.attributes(
            path, expecting<udisk_stat>(path, "attributes",
                                        [this, size = model.size()](const udisk_stat& found) {
                                          return !strict() || found.st_size == std::int64_t(size)
                                                     ? ""
                                                     : "size " + std::to_string(found.st_size);
                                        }));
      case 7:
        mDisk.flush(path, succeeding(path, "flush"));
        mDisk.fsync(path, succeeding(path, "sync"));
        return mDisk.release(path, succeeding(path, "release"));
      case 8:
        mDisk.chmod(path, 0640, succeeding(path, "chmod"));
        return mDisk.chown(path, ~0U, ~0U, succeeding(path, "chown"));
      case 9:
        mDisk.xattr(path, "user.a", expecting<std::uint64_t>(path, "xattr", [](auto size) {
                      return size == 0 ? "" : "a value";
                    }));
        return mDisk.statfs("/", expecting<udisk_statvfs>(path, "statvfs", [](const auto& found) {
                              return found.f_bsize != 0 ? "" : "no block size";
                            }));
    }
  }

  static void put(std::string& model, std::size_t offset, const std::string& data) {
    if (data.empty()) return;
    model.resize(std::max(model.size(), offset + data.size()));
    model.replace(offset, data.size(), data);
  }

  /// Whether every answer must be as if the requests had been served once, one
  /// after the other: a read that is repeated may find what was written behind it.
  bool strict() const { return mLosses == mLossesBefore && held(); }

  /// The check of a read of what is the model's present state.
  struct Reading {
    LibraryWork* self;
    std::string path, expected;
    std::size_t offset;
    std::string operator()(const FileData& found) const { return (*this)(found.bytes()); }
    std::string operator()(wire::Bytes bytes) const {
      const std::string found = text(bytes);
      if (found == expected) return "";
      if (!self->strict() && self->isMixture(found, offset, self->mVersions[path])) return "";
      return "other contents, " + std::to_string(found.size()) + " bytes instead of " +
             std::to_string(expected.size());
    }
  };
  Reading reading(const std::string& path, const std::string& model, std::size_t offset,
                  std::size_t size) {
    return {this, path, offset < model.size() ? model.substr(offset, size) : "", offset};
  }

  /// Whether each byte was there at some time.
  bool isMixture(const std::string& found, std::size_t offset, const Versions& versions) const {
    for (std::size_t i = 0; i < found.size(); ++i) {
      bool known = found[i] == '\0';
      for (const std::string& version : versions) {
        known = known || (offset + i < version.size() && version[offset + i] == found[i]);
      }
      if (!known) return false;
    }
    return true;
  }

  /// What was confirmed must be there; of what was refused, any part may.
  void settle(const std::string& path, const Versions& versions) {
    if (mDoubtful.count(path) == 0) return compare(path, mFiles[path]);
    waitUntilWell();
    if (!exists(path)) {
      mFiles.erase(path);
      return;
    }
    const std::string found = readNow(path);
    if (!isMixture(found, 0, versions)) throw Difference(path + " holds what nobody wrote");
    mFiles[path] = found;
  }

  void waitUntilWell() {
    while (mWorker.rig.state.faulty()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    mMark = mWorker.rig.state.mark();
  }

  std::string readNow(const std::string& path) {
    const Result<FileData> found = mDisk.read(path, 0, kReadAll);
    if (!found) throw Difference("reading " + path + ": " + found.error().message);
    return text(found->bytes());
  }
  void compare(const std::string& path, const std::string& expected) {
    const std::string found = readNow(path);
    if (found == expected) return;
    std::size_t at = 0;
    while (at < found.size() && at < expected.size() && found[at] == expected[at]) ++at;
    throw Difference(path + " has " + std::to_string(found.size()) + " bytes instead of " +
                     std::to_string(expected.size()) + ", other ones from " + std::to_string(at));
  }

  bool exists(const std::string& path) {
    const Result<udisk_stat> found = mDisk.attributes(path);
    if (!found && found.error().kind != ErrorKind::kFailed) {
      throw Difference("attributes of " + path + ": " + found.error().message);
    }
    return found.ok();
  }

  /// Makes a change whose fate a lost link leaves open until `isDone`. False
  /// when a faulty disk refused it.
  template <class Change, class IsDone>
  bool surely(const std::string& what, Change change, IsDone isDone) {
    for (;;) {
      log(what);
      const Status status = change();
      if (status) return true;
      if (status.error().kind == ErrorKind::kFailed && !held()) {
        waitUntilWell();
        return isDone();
      }
      if (status.error().kind != ErrorKind::kLinkLost) {
        throw Difference(what + ": " + status.error().message);
      }
      if (isDone()) return true;
    }
  }

  void remove(const std::string& path) {
    if (mFiles.count(path) == 0) return;
    if (surely(
            "unlink " + path, [&] { return mDisk.unlink(path); }, [&] { return !exists(path); })) {
      mFiles.erase(path);
    }
  }

  void rename(const std::string& from, const std::string& to) {
    if (mFiles.count(from) == 0 || from == to) return;
    if (surely(
            "rename " + from + " " + to, [&] { return mDisk.rename(from, to); },
            [&] { return !exists(from); })) {
      mFiles[to] = std::move(mFiles[from]);
      mFiles.erase(from);
    }
    compareIfThere(from);
    compareIfThere(to);
  }
  void compareIfThere(const std::string& path) {
    const auto file = mFiles.find(path);
    if (exists(path) != (file != mFiles.end())) throw Difference(path + " is there or not");
    if (file != mFiles.end()) compare(path, file->second);
  }

  void linkAndRemove(const std::string& path, const std::string& added) {
    if (mFiles.count(path) == 0 || mFiles.count(added) != 0) return;
    if (!surely(
            "link " + path + " " + added, [&] { return mDisk.link(path, added); },
            [&] { return exists(added); })) {
      return;
    }
    mFiles[added] = mFiles[path];
    compare(added, mFiles[path]);
    while (mFiles.count(added) != 0 && mFiles.count(path) != 0) {
      waitUntilWell();
      remove(mDice.roll(2) == 0 ? path : added);
    }
  }

  void makeAndRemoveDirectory() {
    const std::string path = kDirectories[mDice.roll(kDirectories.size())] + std::string("/sub");
    const auto there = [&] { return exists(path); };
    if (!surely(
            "make directory " + path, [&] { return mDisk.makeDir(path, 0700); }, there))
      return;
    while (there()) {
      waitUntilWell();
      surely(
          "remove directory " + path, [&] { return mDisk.removeDir(path); },
          [&] { return !there(); });
    }
  }

  void listAndCheck() {
    const std::string directory = kDirectories[mDice.roll(kDirectories.size())];
    log("list and check " + directory + "/");
    Result<Listing> listing = mDisk.list(directory + "/");
    if (!listing) throw Difference("list " + directory + "/: " + listing.error().message);
    std::set<std::string> names;
    for (const auto& entry : listing->entries()) {
      if (!S_ISREG(entry.attributes.st_mode)) continue;
      const std::string path = directory + "/" + std::string(entry.name);
      if (mFiles.count(path) == 0) continue;
      names.insert(path);
      if (entry.attributes.st_size != std::int64_t(mFiles[path].size())) {
        throw Difference(path + " is listed with a size of " +
                         std::to_string(entry.attributes.st_size));
      }
    }
    for (const auto& file : mFiles) {
      if (file.first.rfind('/') == directory.size() &&
          file.first.compare(0, directory.size(), directory) == 0 && names.erase(file.first) == 0) {
        throw Difference(file.first + " is not listed");
      }
    }
    const Result<DirCheck> check = mDisk.checkDir(directory + "/", *listing);
    if (!check || check->changed) throw Difference("check " + directory + "/ tells of a change");
  }

  /// Across the length to which hosts cut.
  void changeBigLength() {
    const std::string path = "/big";
    if (!surely(
            "create " + path, [&] { return mDisk.create(path, 0600); },
            [&] { return exists(path); })) {
      return;
    }
    for (const std::uint64_t length : {14U << 20, 12U << 20, 3U << 20}) {
      surely(
          "set length " + std::to_string(length), [&] { return setLength(mDisk, path, length); },
          [] { return true; });
    }
    while (exists(path)) {
      waitUntilWell();
      surely(
          "unlink " + path, [&] { return mDisk.unlink(path); }, [&] { return !exists(path); });
    }
  }

  /// The commands that take the mount point away; a new connection has it again.
  void loseMountPoint() {
    using namespace exchange;
    for (const wire::Command command : {wire::Command::kFileOpen, wire::Command::kUmountRemote}) {
      log("command " + std::to_string(wire::code(command)));
      const auto losses = mLosses.load();
      const Result<ReplyPayload> reply = await<ReplyPayload>([&](Callback<ReplyPayload> done) {
        OutgoingRequest request{command, encode(wire::MountRemoteRequest{}, {"soak"}), {}};
        OutgoingRequest fence{wire::Command::kFileFlush, encode(wire::HandleRecord{}, {"/"}), {}};
        mLink->submitFenced(std::move(request), std::move(done), std::move(fence));
      });
      const bool dropped = command == wire::Command::kFileOpen;
      if (losses != mLosses || (!reply && reply.error().kind == ErrorKind::kLinkLost)) continue;
      if (reply.ok() == dropped) throw Difference(dropped ? "104 was answered" : "101 was not");
      if (!dropped && mDisk.attributes("/").ok() && losses == mLosses)
        throw Difference("101 took nothing away");
    }
    // Whatever of it was repeated: only a driver of its own knows the disk again.
    mWorker.rig.libraryPart.relay().cut();
    for (int i = 0; i < 1000 && !exists("/"); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    mMark = mWorker.rig.state.mark();
    verify();
  }

  Worker& mWorker;
  Dice& mDice;
  std::atomic<std::uint64_t> mLosses{0};
  const std::unique_ptr<DurableLink> mLink;
  Disk mDisk;
  Model mFiles;
  std::uint64_t mMark = 0;

  // Of the present burst.
  std::uint64_t mLossesBefore = 0;
  std::map<std::string, Versions> mVersions;
  std::set<std::string> mDoubtful;  ///< a request for them was refused
  std::atomic<std::size_t> mUnanswered{0};
  Mutex mMutex;
  Condition mAnswered;
  std::vector<std::function<void()>> mArrived GUARDED_BY(mMutex);
};

}  // namespace

void workWithLibrary(Worker& worker) {
  LibraryWork work(worker);
  while (!worker.ending.now) work.step();
  work.verify();
}

}  // namespace zor::soak
