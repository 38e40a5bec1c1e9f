// Renames over files that are open here, while hosts die between two requests.
#include <fcntl.h>
#include <gmock/gmock.h>

#include "scripted_host.h"

namespace zor::client::test {
namespace {

using zor::test::eventually;

struct Death {
  bool links;       ///< the disk has hard links
  Command command;  ///< the host dies before this request,
  int number;       ///< of its kind
  bool returns;     ///< and is there again at once, or after the time limit
};

class ReplacedTarget : public ScriptedDrive, public ::testing::WithParamInterface<Death> {
 protected:
  std::string under(const std::string& name) { return readFile(mDisk / name); }
  bool onlyHas(const std::vector<std::string>& names) {
    std::size_t found = 0;
    for (const auto& entry : fs::directory_iterator(mDisk.root())) {
      static_cast<void>(entry);
      ++found;
    }
    return found == names.size() && std::all_of(names.begin(), names.end(), [&](const auto& name) {
             return fs::exists(mDisk / name);
           });
  }
};

TEST_P(ReplacedTarget, IsThereBeforeAndAfterWhateverBecomesOfTheHost) {
  const Death& death = GetParam();
  writeFile(mDisk / "a", "new");
  writeFile(mDisk / "b", "old");
  connectUncached(death.returns ? 20s : 300ms);
  ASSERT_NE(node("a"), 0U);
  OpenFile& old = *mDrive->open(node("b"), O_RDWR)->file;
  int seen = 0;
  mHost->refuses = [&](Command command, const std::string&) {
    if (command == death.command && ++seen == death.number) {
      mDisk.stop(SIGKILL);
      if (death.returns) mDisk.serve();
    }
    return command == Command::kSetLink && !death.links;
  };
  const int renamed = errnoOf(mDrive->rename(kRootNode, "a", kRootNode, "b", 0));
  EXPECT_EQ(renamed, death.returns || death.number == 0 ? 0 : EIO);
  if (death.links && !death.returns) {
    EXPECT_EQ(under("b"), "old");
  }
  if (!death.returns && death.number > 0) mDisk.serve();
  EXPECT_TRUE(eventually([&] { return under("b") == (renamed == 0 ? "new" : "old"); }));
  EXPECT_EQ(fs::exists(mDisk / "a"), renamed != 0);
  ASSERT_TRUE(eventually([&] { return mDrive->lookup(kRootNode, "b").ok(); }));
  EXPECT_EQ(read(old), "old");
  EXPECT_EQ(write(old, "OLD"), 0);
  EXPECT_EQ(errnoOf(mDrive->flush(old)), 0);
  mDrive->release(old);
  EXPECT_EQ(under("b"), renamed == 0 ? "new" : "OLD");
  if (renamed == 0) {
    EXPECT_TRUE(onlyHas({"b"}));
  } else {
    EXPECT_TRUE(onlyHas({"a", "b"}));
  }
}

const Death kDeaths[] = {
    {true, Command::kSetLink, 0, true},     {true, Command::kSetLink, 1, true},
    {true, Command::kSetRename, 1, true},   {true, Command::kSetLink, 1, false},
    {true, Command::kSetRename, 1, false},  {false, Command::kSetRename, 0, true},
    {false, Command::kSetRename, 1, true},  {false, Command::kSetRename, 2, true},
    {false, Command::kSetRename, 1, false}, {false, Command::kSetRename, 2, false},
};

INSTANTIATE_TEST_SUITE_P(Of, ReplacedTarget, ::testing::ValuesIn(kDeaths));

}  // namespace
}  // namespace zor::client::test
