// What is known of names, and for how long: without a host, with a stepped clock.
#include "drive/metadata/name_cache.h"

#include <gtest/gtest.h>

#include "client/disk_identity.h"
#include "protocol/codec.h"

namespace zor::client::test {
namespace {

using namespace std::chrono_literals;

struct Open final : OpenState {
  bool isUnacknowledged() const override { return unacknowledged; }
  bool unacknowledged = false;
};

udisk_stat attributes(std::uint64_t number, std::uint32_t type = S_IFREG) {
  udisk_stat result{};
  result.st_mode = type | 0644;
  result.st_ino = number;
  result.st_nlink = 1;
  return result;
}

/// As hosts encode it; each name is a file, and its place is its number.
Listing listing(const std::vector<std::string>& names) {
  Buffer raw;
  std::uint64_t number = 10;
  for (const std::string& name : names) {
    raw.append(wire::encoded(
        wire::DirEntryRecord{attributes(number++), static_cast<std::uint16_t>(name.size() + 1)}));
    raw.append(std::as_bytes(std::span(name.c_str(), name.size() + 1)));
  }
  raw.append(std::as_bytes(std::span("", 1)));
  auto parsed = Listing::parse(std::move(raw), 0, static_cast<std::uint16_t>(names.size()));
  EXPECT_TRUE(parsed);
  return std::move(*parsed);
}

class NameCacheTest : public ::testing::Test {
 protected:
  void learnListing(const std::vector<std::string>& names) {
    mNames.learnListing(mRoot, listing(names), mNames.linkEpoch());
    mNames.setLifetime(*mRoot.directory, 0s);
  }
  void learn(const std::string& name, const udisk_stat& is) {
    mNames.learn(kRootNode, name, is, mNames.linkEpoch());
  }
  Entry& entry(const std::string& name) { return *mNames.findEntry(kRootNode, name); }
  Node& nodeOf(const std::string& name) {
    return mNames.nodeAt(mRoot, *mNames.findPlace(kRootNode, name));
  }
  bool isValid(const std::string& name) { return mNames.isValid(mRoot, entry(name)); }

  Clock::time_point mNow{1h};
  NameCache mNames{{.lifetime = 1s, .now = [this] { return mNow; }}};
  Node& mRoot = mNames.root();
};

TEST_F(NameCacheTest, AttributesAndAbsenceAreValidForTheirLifetime) {
  learnListing({"a", "b"});
  EXPECT_TRUE(isValid("a") && mNames.isValid(*mRoot.directory));
  EXPECT_EQ(mNames.absenceValidity(*mRoot.directory), 1s);
  mNow += 999ms;
  learn("b", attributes(11));
  EXPECT_TRUE(isValid("a"));
  mNow += 1ms;
  EXPECT_FALSE(isValid("a") || mNames.isValid(*mRoot.directory));
  EXPECT_EQ(mNames.absenceValidity(*mRoot.directory), 0s);
  EXPECT_TRUE(isValid("b")) << "it was queried by itself";
  mNames.confirm(mRoot);
  EXPECT_TRUE(isValid("a"));
  // A listing that took long is valid for as long.
  mNames.setLifetime(*mRoot.directory, 5s);
  mNow += 4s;
  EXPECT_TRUE(isValid("a"));
  entry("a").stale = true;
  EXPECT_FALSE(isValid("a"));
}

TEST_F(NameCacheTest, AListingReplacesWhatItDoesNotShowExceptForPendingNames) {
  learnListing({"gone", "same", "typed"});
  Node& gone = nodeOf("gone");
  Node& same = nodeOf("same");
  gone.references = same.references = nodeOf("typed").references = 1;
  mNames.addPending(mRoot, "pending", 0640).references = 1;
  learn("typed", attributes(13, S_IFDIR));
  EXPECT_EQ(entry("typed").node, nullptr) << "another type is another file";
  learnListing({"new", "same"});
  EXPECT_EQ(mNames.findEntry(kRootNode, "gone"), nullptr);
  EXPECT_FALSE(mNames.has(gone) || mNames.path(gone));
  EXPECT_EQ(entry("same").node, &same);
  EXPECT_EQ(entry("pending").attributes.st_mode, S_IFREG | 0640U);
  EXPECT_EQ(snapshotOf(*mRoot.directory)->size(), 2U) << "a pending name is not yet listed";
}

TEST_F(NameCacheTest, OnlyANewQueryIsBelievedOfAFileWithSeveralNames) {
  udisk_stat linked = attributes(7);
  linked.st_nlink = 2;
  learn("one", linked);
  EXPECT_TRUE(isValid("one"));
  EXPECT_EQ(mNames.kernelValidity(mRoot, entry("one")), 0s) << "it takes them for two files";
  const std::uint64_t before = mNames.linkEpoch();
  mNames.invalidateLinks();
  EXPECT_FALSE(isValid("one"));
  mNames.learn(kRootNode, "one", linked, before);
  EXPECT_FALSE(isValid("one")) << "an answer to an older query";
  learn("one", linked);
  EXPECT_TRUE(isValid("one"));
}

TEST_F(NameCacheTest, ProgramsSeeWhatTheyWroteUntilTheHostHasIt) {
  learn("f", attributes(7));
  Node& node = nodeOf("f");
  auto open = std::make_unique<Open>();
  Open& state = *open;
  node.open = std::move(open);
  state.dirty = state.unacknowledged = true;
  state.end = 5;
  mNow += 1min;
  EXPECT_TRUE(isValid("f")) << "nobody knows better";
  EXPECT_EQ(mNames.kernelValidity(mRoot, entry("f")), 0s);
  learn("f", attributes(7));
  EXPECT_EQ(mNames.shown(entry("f")).st_size, 5) << "the reply is older than the write";
  state.unacknowledged = false;
  learn("f", attributes(7));
  EXPECT_EQ(mNames.shown(entry("f")).st_size, 0);
  state.deferredMode = 0400;
  EXPECT_EQ(mNames.shown(entry("f")).st_mode, S_IFREG | 0400U);
}

TEST_F(NameCacheTest, ARenameKeepsTheNodeAndASillyNameIsNotSeen) {
  learnListing({"a", "b"});
  Node& a = nodeOf("a");
  Node& b = nodeOf("b");
  a.references = b.references = 1;
  mNames.keepRemoved(kRootNode, "b");
  mNames.move(kRootNode, "a", kRootNode, "b");
  EXPECT_EQ(mNames.path(a), "/b");
  EXPECT_FALSE(mNames.path(b));
  EXPECT_EQ(b.removed->st_nlink, 0U);
  ASSERT_NE(mNames.markSilly(kRootNode, "b"), nullptr);
  EXPECT_TRUE(snapshotOf(*mRoot.directory)->empty());
  EXPECT_EQ(mNames.shown(entry("b")).st_nlink, 0U);
}

TEST_F(NameCacheTest, WhatNobodyUsesIsDroppedWhenItWouldBeListedAgain) {
  learnListing({"a", "b"});
  nodeOf("b").references = 1;
  mNames.dropUnused(mNow + kMaxListingAge);
  EXPECT_NE(mNames.findEntry(kRootNode, "a"), nullptr);
  mNames.dropUnused(mNow + kMaxListingAge + 1ms);
  EXPECT_EQ(mNames.findEntry(kRootNode, "a"), nullptr);
  EXPECT_NE(mNames.findEntry(kRootNode, "b"), nullptr);
  EXPECT_FALSE(mNames.isValid(*mRoot.directory));
}

TEST_F(NameCacheTest, AFileThatOnlyGotAnotherNumberIsNotReplaced) {
  udisk_stat before{};
  before.st_mode = S_IFREG | 0644;
  before.st_ino = 7;
  before.st_mtim.tv_sec = 90;
  udisk_stat after = before;
  after.st_ino = 8;
  udisk_stat changed = after;
  changed.st_size = 9;
  changed.st_mtim.tv_sec = 88;  // rounded
  udisk_stat older = after;
  older.st_mtim.tv_sec = 80;
  struct {
    bool lasting;
    const udisk_stat& now;
    bool fits;
  } const cases[] = {{true, before, true},
                     {true, after, false},
                     {false, after, true},
                     {false, changed, true},
                     {false, older, false}};
  for (const auto& one : cases) {
    NameCache names({.lastingInodes = one.lasting});
    Entries::value_type& place = *names.root().directory->entries.emplace("f", Entry{}).first;
    place.second.attributes = before;
    Node& node = names.nodeAt(names.root(), place);
    EXPECT_TRUE(names.fits(place.second, one.now)) << "a file that is not open";
    node.open = std::make_unique<Open>();
    EXPECT_EQ(names.fits(place.second, one.now), one.fits) << &one - cases;
  }
  udisk_statvfs fuse{};
  fuse.f_files = 9;
  fuse.f_bfree = fuse.f_ffree = 5;
  fuse.f_namemax = 255;
  EXPECT_TRUE(makesUpInodes(fuse));
  fuse.f_ffree = 6;
  EXPECT_FALSE(makesUpInodes(fuse));
}

}  // namespace
}  // namespace zor::client::test
