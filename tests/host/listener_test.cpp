#include "listener.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <optional>

#include "remote/temporary_directory.h"

namespace zor::host {
namespace {

using ::testing::HasSubstr;

class ListenerTest : public ::testing::Test {
 protected:
  static std::string refusal(const std::string& path) {
    try {
      Listener listener(path);
      return "it listens";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  static UniqueFd bound(int type, const std::string& path) {
    UniqueFd socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return socket;
  }

  const remote::test::TemporaryDirectory mHome;
  const std::string mDirectory = mHome.path(), mPath = mDirectory + "/socket";
};

TEST_F(ListenerTest, IsItsOwnersAloneAndLeavesNothingBehind) {
  const mode_t before = ::umask(0022);
  {
    const Listener listener(mPath);
    struct stat found {};
    ASSERT_EQ(::lstat(mPath.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode, S_IFSOCK | 0600U);
    EXPECT_THAT(refusal(mPath), HasSubstr("already serving"));
  }
  EXPECT_FALSE(std::filesystem::exists(mPath));
  EXPECT_EQ(::umask(before), 0022U);
}

TEST_F(ListenerTest, TakesOnlyADeadSocketsPlace) {
  const std::string file = mDirectory + "/file";
  std::ofstream(file) << "precious";
  std::filesystem::create_symlink(file, mDirectory + "/link");
  EXPECT_THAT(refusal(file), HasSubstr("not a socket"));
  EXPECT_THAT(refusal(mDirectory + "/link"), HasSubstr("not a socket"));
  EXPECT_EQ(std::filesystem::file_size(file), 8U);
  EXPECT_THAT(refusal(mDirectory + "/none/socket"), HasSubstr("No such file"));
  EXPECT_THAT(refusal(mDirectory + "/" + std::string(108, 'x')), HasSubstr("longer than 107"));
  EXPECT_THAT(refusal(""), HasSubstr("empty"));
  const UniqueFd datagrams = bound(SOCK_DGRAM, mDirectory + "/datagrams");
  EXPECT_THAT(refusal(mDirectory + "/datagrams"), HasSubstr("wrong type"));
  bound(SOCK_STREAM, mPath);  // what a host that was killed leaves behind
  std::filesystem::create_symlink(mPath, mDirectory + "/socket link");
  EXPECT_THAT(refusal(mDirectory + "/socket link"), HasSubstr("not a socket"));
  EXPECT_EQ(refusal(mPath), "it listens");
}

TEST_F(ListenerTest, LeavesAPathThatIsNoLongerIts) {
  std::optional<Listener> listener(mPath);
  std::filesystem::rename(mPath, mPath + ".moved");
  std::ofstream(mPath) << "another";
  listener.reset();
  EXPECT_TRUE(std::filesystem::exists(mPath));
}

}  // namespace
}  // namespace zor::host
