// Listings of directories, and whether a peer's listing still holds.
#include <fcntl.h>

#include <atomic>
#include <functional>
#include <thread>

#include "disk_fixture.h"

namespace zor::test {
namespace {

/// One entry as it travels: only the name, the size and the seconds matter.
std::string entryOf(const std::string& name, std::uint64_t size, std::uint64_t seconds) {
  return std::string(24, 'a') + le(size, 8) + std::string(40, 'b') + le(seconds, 8) +
         std::string(40, 'c') + le(name.size() + 1, 2) + name + '\0';
}

class ListingTest : public DiskTest {
 protected:
  static std::string dirRequest(const std::string& path, const std::string& listing = "",
                                std::size_t count = 0) {
    return wire("0807060504030201") + le(listing.size(), 4) + le(path.size(), 2) + le(count, 2) +
           path + listing;
  }
  /// Lists a directory and checks that count, length and entries agree.
  std::string list(const std::string& path) {
    const std::string reply = ask(107, dirRequest(path)).value();
    const std::string listing = reply.substr(16 + path.size());
    names.clear();
    std::size_t at = 0;
    while (at + 122 < listing.size()) {
      const std::size_t length = std::strlen(&listing[at + 122]) + 1;
      EXPECT_EQ(listing.substr(at + 120, 2), le(length, 2));
      names.push_back(listing.substr(at + 122, length - 1));
      at += 122 + length;
    }
    EXPECT_EQ(listing.substr(at), std::string(1, '\0'));  // behind the last entry, one more byte
    EXPECT_EQ(reply,
              dirRequest(path, "", names.size()).replace(8, 4, le(listing.size(), 4)) + listing);
    return listing;
  }
  bool answersCheck(const std::string& path, const std::string& listing, std::size_t count) {
    const auto reply = ask(121, dirRequest(path, listing, count));
    EXPECT_TRUE(!reply || reply == ask(107, dirRequest(path)));
    return reply.has_value();
  }

  /// Two listings of `count` entries each.
  bool compare(int count, std::string one, std::string other) {
    return op.compare_cache(count, count, reinterpret_cast<unsigned char*>(one.data()),
                            reinterpret_cast<unsigned char*>(other.data()));
  }

  std::vector<std::string> names;  ///< in the latest listing
};

TEST_F(ListingTest, AListingHoldsWhatThePlatformLists) {
  EXPECT_EQ(list("/empty").size(), 250U);
  converse(R"(
    107 0807060504030201 00000000 0500 0000 '/none' | =;
    107 0807060504030201 00000000 0200 0000 '/' 00  | none;
    121 0807060504030201 00000000 0200 0000 '/' 00  | none;
    121 0807060504030201 00000000 0500 0000 '/none' | none;)");
  EXPECT_EQ(log.errors("dir_read dir not match") + log.errors("check dir not match"), 2U);

  put(disk + "/" + std::string(255, 'n'), "longest");
  put(disk + "/\xe5\xa4\xa7 \n\"", "odd");
  const std::string listing = list("/");
  std::size_t there = 2, at = 0;
  for (const auto& entry : fs::directory_iterator(disk)) {
    there +=
        static_cast<std::size_t>(std::count(names.begin(), names.end(), entry.path().filename()));
  }
  EXPECT_EQ(names.size(), there);
  for (const std::string& name : names) {
    EXPECT_EQ(listing.substr(at + 8, 8), le(lstatOf(disk + "/" + name).st_ino, 8));
    at += 122 + name.size() + 1;
  }
}

TEST_F(ListingTest, ADirectoryThatChangesMeanwhileIsListedConsistently) {
  fs::create_directory(disk + "/busy");
  std::atomic<bool> stop{false};
  std::thread neighbour([&] {
    for (unsigned i = 0; !stop; ++i) {
      const std::string name = std::string(1 + i % 200, 'n') + std::to_string(i % 50);
      if (!fs::remove(disk + "/busy/" + name)) put(disk + "/busy/" + name, "");
    }
  });
  for (std::size_t round = 0, most = 0; round < 300 || most < 10; ++round) {
    list("/busy");
    most = std::max(most, names.size());
  }
  stop = true;
  neighbour.join();
}

TEST_F(ListingTest, OnlyAChangedDirectoryIsAnswered) {
  const std::string d = disk + "/d/";
  fs::create_directory(d);
  for (const char* name : {"a", "b", "c"}) put(d + name, "1234");
  const auto setTime = [&](const std::string& name, time_t seconds, long nanoseconds) {
    const timespec times[] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
    ::utimensat(AT_FDCWD, (d + name).c_str(), times, 0);
  };
  setTime("a", 1000, 5);
  using Change = std::pair<std::string, std::function<void()>>;
  for (const auto& [line, change] :
       {Change{"========== not update==========", [] {}},
        Change{"not update", [&] { setTime("a", 1000, 999999999); }},
        Change{"not found dirFileName:a,", [&] { setTime("a", 1001, 5); }},
        Change{"not found dirFileName:b", [&] { fs::resize_file(d + "b", 5); }},
        Change{"found name:a,not found", [&] { fs::rename(d + "a", d + "z"); }},
        Change{"cache_file_count:5,file_count:6", [&] { put(d + "new", ""); }},
        Change{"cache_file_count:6,file_count:5", [&] { fs::remove(d + "new"); }},
        Change{"opendir failed", [&] { fs::rename(d, disk + "/e"); }}}) {
    const std::string listing = list("/d");
    const timespec held = lstatOf(d).st_mtim;
    log.clear();
    change();
    setTime(".", held.tv_sec, held.tv_nsec);  // it takes part in the comparison, too
    EXPECT_EQ(answersCheck("/d", listing, names.size()), line.find("update") == line.npos) << line;
    EXPECT_TRUE(log.has(line)) << line;
  }
}

TEST_F(ListingTest, ACachedListingThatMakesNoSenseIsReplaced) {
  const std::string fresh = list("/empty");
  const std::string dot = fresh.substr(0, 124), dots = fresh.substr(124, 125);
  const auto with = [&](std::size_t at, char value) {
    return std::string(fresh).replace(at, 1, 1, value);
  };
  for (const std::string& listing :
       {std::string(), fresh.substr(0, 248), fresh.substr(0, 200), with(120, 0), with(121, 1),
        with(123, 'x'), with(246, 0), dot + entryOf(std::string(1024, 'n'), 0, 0)}) {
    log.clear();
    EXPECT_TRUE(answersCheck("/empty", listing, 2)) << hexOf(listing);
    EXPECT_TRUE(log.has(" compare_cache(") && log.has("cache_file_count:2,file_count:2"));
  }
  for (const std::size_t count : {1U, 3U}) EXPECT_TRUE(answersCheck("/empty", fresh, count));
  EXPECT_FALSE(answersCheck("/empty", dots + dot + '\0', 2));  // in another order
  // What stands behind the last entry does not matter.
  for (const std::string& behind : {std::string(), std::string("x"), dot, with(120, 0)}) {
    EXPECT_FALSE(answersCheck("/empty", dot + dots + behind, 2));
  }
}

TEST_F(ListingTest, NamesThatStandTwiceAreCountedTwice) {
  // The names of both listings (A is a larger a), and how many are found until it is known.
  std::istringstream rows("aa ab 2 1  ab aa 2 0  aa aa 4 0  ab aA 1 0  ab Aa 0 0  ab bb 0 0");
  std::string old, now;
  for (std::size_t found = 0, same = 0; rows >> old >> now >> found >> same;) {
    for (const int level : {kLogDebug, kLogError}) {  // without its lines it may end early
      morvelLogSetLevel(level);
      log.clear();
      std::string listings[2];
      for (int i = 0; i < 4; ++i) {
        const char name = (old + now)[static_cast<std::size_t>(i)];
        listings[i / 2] += name == 'A' ? entryOf("a", 2, 1) : entryOf({name}, 1, 1);
      }
      EXPECT_EQ(compare(2, listings[0], listings[1]), same != 0);
      const auto lines = log.all("\"found dirFileName:a,cacheFileName:a\"").size();
      EXPECT_EQ(lines, level == kLogDebug ? found : 0);
    }
  }
}

TEST_F(ListingTest, TheComparisonEndsHoweverManyEntriesThereAre) {
  // With a step for every pair of entries it would outlast any test.
  constexpr int kCount = 150000;
  std::string cached, current, same;
  for (unsigned i = 0, other = kCount; i < unsigned{kCount}; ++i) {
    cached += entryOf("file" + std::to_string(i), i, i);
    --other;
    current += entryOf("file" + std::to_string(other), other, other);
    same += entryOf("same", 1, 1);
  }
  morvelLogSetLevel(kLogError);
  EXPECT_TRUE(compare(kCount, cached, current));
  EXPECT_FALSE(compare(kCount, same, same));
}

}  // namespace
}  // namespace zor::test
