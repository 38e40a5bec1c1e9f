#include "host/listener.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <thread>

#include "support/temporary_directory.h"

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

  const client::test::TemporaryDirectory mHome;
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
  // Anybody may lock a directory that he can read.
  const UniqueFd directory(::open(mDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::flock(directory.get(), LOCK_EX), 0);
  EXPECT_EQ(refusal(mPath), "it listens");
}

TEST_F(ListenerTest, LeavesAPathThatIsNoLongerIts) {
  std::optional<Listener> listener(mPath);
  std::filesystem::rename(mPath, mPath + ".moved");
  std::ofstream(mPath) << "another";
  listener.reset();
  EXPECT_TRUE(std::filesystem::exists(mPath));
}

TEST_F(ListenerTest, OfTwoThatStartAtOnceOneListens) {
  for (int round = 0; round < 300; ++round) {
    std::filesystem::remove(mPath);
    if (round % 2 == 0) bound(SOCK_STREAM, mPath);
    std::atomic<int> ready{0};
    std::optional<Listener> listeners[2];
    const auto start = [&](std::optional<Listener>& listener) {
      for (++ready; ready < 2;) std::this_thread::yield();
      try {
        listener.emplace(mPath);
      } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("already serving"));
      }
    };
    std::thread other([&] { start(listeners[1]); });
    start(listeners[0]);
    other.join();
    ASSERT_NE(listeners[0].has_value(), listeners[1].has_value()) << round;
    EXPECT_THAT(refusal(mPath), HasSubstr("already serving"));
    listeners[0].reset();
    listeners[1].reset();
    EXPECT_TRUE(std::filesystem::is_empty(mDirectory));
  }
}

TEST_F(ListenerTest, GivesItsSocketToAnotherUserAndTakesNobodyElses) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can";
  const auto owned = [&](uid_t user) {
    std::filesystem::remove(mPath);
    bound(SOCK_STREAM, mPath);
    return ::chown(mPath.c_str(), user, 0) == 0;
  };
  ASSERT_TRUE(owned(65533));
  EXPECT_THAT(refusal(mPath), HasSubstr("a socket of user 65533"));
  for (const uid_t before : {0U, 65534U}) {
    ASSERT_TRUE(owned(before));
    const Listener listener(mPath, Listener::Owner{65534, 65534});
    struct stat found {};
    ASSERT_EQ(::lstat(mPath.c_str(), &found), 0);
    EXPECT_TRUE(found.st_mode == (S_IFSOCK | 0600U) && found.st_uid == 65534);
  }
}

}  // namespace
}  // namespace zor::host
