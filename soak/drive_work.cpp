#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "support/unique_fd.h"
#include "workers.h"

namespace zor::soak {
namespace {

/// The disk refused something while it was faulty: what was under way is
/// undefined then.
struct Unsettled {};

/// One tree on the drive and one beside it, which get the same system calls.
class Twins {
 public:
  Twins(Worker& worker, const std::string& name)
      : mWorker(worker),
        mDice(worker.dice),
        mRoots{worker.rig.drive() / name, worker.rig.beside("plain-" + name)} {
    clear();
  }

  void step();
  void recover();
  void verify(bool all = true);

 private:
  struct Outcome {
    long result = 0;
    int error = 0;
    std::string data;
    bool operator==(const Outcome&) const = default;
  };

  /// Runs `call(side, outcome data)` on both.
  template <class Call>
  long both(const std::string& what, Call call) {
    mWorker.journal.add(what);
    std::array<Outcome, 2> outcomes;
    for (std::size_t side = 0; side < 2; ++side) {
      errno = 0;
      outcomes[side].result = call(side, outcomes[side].data);
      if (outcomes[side].result < 0) outcomes[side].error = errno;
    }
    if (outcomes[0] == outcomes[1]) return outcomes[0].result;
    if (!mWorker.rig.state.heldSince(mMark)) throw Unsettled();
    throw Difference(what + ": the drive gave " + text(outcomes[0]) + " instead of " +
                     text(outcomes[1]) + differing(outcomes[0].data, outcomes[1].data));
  }
  static std::string text(const Outcome& outcome) {
    return std::to_string(outcome.result) +
           (outcome.error != 0 ? std::string(" (") + std::strerror(outcome.error) + ")" : "") +
           (outcome.data.size() < 100 ? " " + outcome.data : "");
  }
  static std::string differing(const std::string& a, const std::string& b) {
    std::size_t at = 0;
    while (at < a.size() && at < b.size() && a[at] == b[at]) ++at;
    if (a == b) return "";
    return ", " + std::to_string(a.size()) + " bytes and " + std::to_string(b.size()) +
           ", other ones from " + std::to_string(at) + ": " + hex(a, at) + "and " + hex(b, at);
  }
  static std::string hex(const std::string& bytes, std::size_t at) {
    std::string text;
    for (const char c : bytes.substr(at, 8)) {
      for (const int shift : {4, 0}) text += "0123456789abcdef"[(c >> shift) & 15];
      text += ' ';
    }
    return text;
  }

  std::string directory() {
    constexpr std::array<const char*, 4> kNames{"", "/d1", "/d1/d2", "/Grüße"};
    return kNames[mDice.roll(kNames.size())];
  }
  std::string name() {
    std::string path = directory() + "/f" + std::to_string(mDice.roll(6));
    mTouched.insert(path);
    struct stat status {};
    if (::lstat(at(1, path).c_str(), &status) == 0) mTouchedFiles.insert(status.st_ino);
    return path;
  }
  std::string at(std::size_t side, const std::string& path) const { return mRoots[side] + path; }
  void clear();
  void openFileWork();
  void insideSession(const std::array<UniqueFd, 2>& files, std::string& path);
  void readWhole(const std::string& path);
  void compareAttributes(const std::string& path);
  void verifyDirectory(const std::string& path, bool all);
  bool mayBeLeft(const std::string& name) const;

  Worker& mWorker;
  Dice& mDice;
  const std::array<std::string, 2> mRoots;
  std::uint64_t mMark = 0;
  std::uint64_t mCleared = 0;      ///< when both were last emptied
  std::set<std::string> mTouched;  ///< by this step
  std::set<ino_t> mTouchedFiles;   ///< the same beside the drive, for their other names
};

void Twins::clear() {
  mCleared = mWorker.rig.state.mark();
  for (const std::string& root : mRoots) {
    fs::remove_all(root);
    fs::create_directories(root + "/d1/d2");
    fs::create_directory(root + "/Grüße");
  }
}

void Twins::step() {
  mTouched.clear();
  mTouchedFiles.clear();
  mMark = mWorker.rig.state.mark();
  const std::string path = name();
  const auto mode = static_cast<mode_t>(0600 + mDice.roll(0200));
  const std::uint64_t roll = mDice.roll(100);
  if (roll < 45) return openFileWork();
  if (roll < 55) return readWhole(path);
  if (roll < 65) return compareAttributes(path);
  if (roll < 67) return verify();
  if (roll < 75) {
    both("unlink " + path, [&](auto side, auto&) { return ::unlink(at(side, path).c_str()); });
  } else if (roll < 84) {
    const std::string to = name();
    both("rename " + path + " " + to,
         [&](auto side, auto&) { return ::rename(at(side, path).c_str(), at(side, to).c_str()); });
  } else if (roll < 88) {
    const std::string to = name();
    both("link " + path + " " + to,
         [&](auto side, auto&) { return ::link(at(side, path).c_str(), at(side, to).c_str()); });
  } else if (roll < 92) {
    both("chmod " + path, [&](auto side, auto&) { return ::chmod(at(side, path).c_str(), mode); });
    // Quietly refused by a faulty disk.
    if (!mWorker.rig.state.heldSince(mMark)) throw Unsettled();
  } else if (roll < 95) {
    const auto length = static_cast<off_t>(mDice.roll(300000));
    both("truncate " + path + " to " + std::to_string(length),
         [&](auto side, auto&) { return ::truncate(at(side, path).c_str(), length); });
  } else {
    const std::string from = directory() + "/sub";
    const std::string to = directory() + "/sub";
    mTouched.insert({from, to});
    both("mkdir " + from, [&](auto side, auto&) { return ::mkdir(at(side, from).c_str(), 0700); });
    both("rename " + from + " " + to,
         [&](auto side, auto&) { return ::rename(at(side, from).c_str(), at(side, to).c_str()); });
    both("rmdir " + to, [&](auto side, auto&) { return ::rmdir(at(side, to).c_str()); });
  }
}

void Twins::openFileWork() {
  constexpr std::array<int, 5> kFlags{0, O_CREAT, O_CREAT, O_CREAT | O_TRUNC, O_CREAT | O_APPEND};
  std::string path = name();
  const int flags = O_RDWR | O_CLOEXEC | kFlags[mDice.roll(kFlags.size())];
  std::array<UniqueFd, 2> files;
  const long opened =
      both("open " + path + " flags " + std::to_string(flags), [&](auto side, auto&) {
        files[side] = UniqueFd(::open(at(side, path).c_str(), flags, 0644));
        return files[side] ? 0 : -1;
      });
  if (opened < 0) return;
  for (std::uint64_t left = mDice.roll(12); left > 0; --left) insideSession(files, path);
  // A close that succeeds means that all of it is there.
  both("close " + path, [&](auto side, auto&) { return ::close(files[side].release()); });
}

void Twins::insideSession(const std::array<UniqueFd, 2>& files, std::string& path) {
  const auto offset = static_cast<off_t>(mDice.roll(200000));
  const std::size_t size = mDice.roll(4) == 0 ? mDice.roll(200000) : mDice.roll(5000);
  const std::string where = std::to_string(size) + " at " + std::to_string(offset);
  switch (mDice.roll(12)) {
    default: {
      const std::string data = mDice.bytes(size);
      both("write " + where, [&](auto side, auto&) {
        return ::pwrite(files[side].get(), data.data(), size, offset);
      });
      break;
    }
    case 0:
    case 1:
    case 2:
      both("read " + where, [&](auto side, auto& found) {
        found.resize(size);
        return ::pread(files[side].get(), found.data(), size, offset);
      });
      break;
    case 3:
      both("ftruncate to " + std::to_string(offset),
           [&](auto side, auto&) { return ::ftruncate(files[side].get(), offset); });
      break;
    case 4:
      both("fsync", [&](auto side, auto&) { return ::fsync(files[side].get()); });
      break;
    case 5: {
      const std::string to = name();
      both("rename the open " + path + " " + to, [&](auto side, auto&) {
        return ::rename(at(side, path).c_str(), at(side, to).c_str());
      });
      path = to;
      break;
    }
    case 6:
      both("unlink the open " + path,
           [&](auto side, auto&) { return ::unlink(at(side, path).c_str()); });
  }
}

void Twins::readWhole(const std::string& path) {
  both("read " + path, [&](auto side, auto& found) {
    const UniqueFd file(::open(at(side, path).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return ssize_t{-1};
    std::array<char, 65536> piece{};
    ssize_t got = 0;
    while ((got = ::read(file.get(), piece.data(), piece.size())) > 0) {
      found.append(piece.data(), static_cast<std::size_t>(got));
    }
    return got;
  });
}

void Twins::compareAttributes(const std::string& path) {
  both("attributes of " + path, [&](auto side, auto& found) {
    struct stat status {};
    const int result = ::lstat(at(side, path).c_str(), &status);
    if (result == 0) {
      found = "mode " + std::to_string(status.st_mode);
      if (S_ISREG(status.st_mode)) {
        found += " size " + std::to_string(status.st_size);
        // A removed name that is left counts as one.
        if (mWorker.rig.state.heldSince(mCleared)) {
          found += " links " + std::to_string(status.st_nlink);
        }
      }
    }
    return result;
  });
}

void Twins::verify(bool all) { verifyDirectory("", all); }

/// Everything, or what this step did not touch.
void Twins::verifyDirectory(const std::string& path, bool all) {
  std::set<std::string> names;
  both("list " + path + "/", [&](auto side, auto& found) {
    names.clear();
    DIR* directory = ::opendir(at(side, path + "/").c_str());
    if (directory == nullptr) return -1;
    while (const dirent* entry = ::readdir(directory)) names.insert(entry->d_name);
    ::closedir(directory);
    for (const char* dots : {".", ".."}) names.erase(dots);
    std::erase_if(names, [&](auto& name) {
      return mayBeLeft(name) || (!all && mTouched.count(path + "/" + name) != 0);
    });
    for (const std::string& name : names) found += name + "/";
    return 0;
  });
  for (const std::string& name : names) {
    const std::string inner = path + "/" + name;
    struct stat status {};
    ::lstat(at(1, inner).c_str(), &status);
    if (S_ISDIR(status.st_mode)) {
      verifyDirectory(inner, all);
    } else if (all || mTouchedFiles.count(status.st_ino) == 0) {
      compareAttributes(inner);
      readWhole(inner);
    }
  }
}

/// What an open file that was removed is called until it is closed: a faulty
/// disk may keep it. The drive says so, but no program is told.
bool Twins::mayBeLeft(const std::string& name) const {
  return name.rfind(".udisk-removed-", 0) == 0 && !mWorker.rig.state.heldSince(mCleared);
}

void Twins::recover() {
  mWorker.rig.state.lost = true;
  mWorker.journal.add("the disk refused this: starting anew when it is well");
  while (mWorker.rig.state.faulty() && !mWorker.ending.now) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  mMark = mWorker.rig.state.mark();
  verify(false);
  clear();
}

}  // namespace

void workOnDrive(Worker& worker, const std::string& name) {
  Twins twins(worker, name);
  while (!worker.ending.now) {
    try {
      twins.step();
      continue;
    } catch (const Unsettled&) {
    }
    for (bool settled = false; !settled && !worker.ending.now;) {
      try {
        twins.recover();
        settled = true;
      } catch (const Unsettled&) {
      } catch (const fs::filesystem_error& error) {
        if (!worker.rig.state.faulty()) throw Difference(error.what());
      }
    }
  }
}

}  // namespace zor::soak
