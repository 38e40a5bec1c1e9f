// Who is served, how many at once, and what they do to each other and to the disk.
#include <sys/statvfs.h>

#include "host_process.h"

namespace host_test {
namespace {

namespace fs = std::filesystem;

class ClientsTest : public HostTest {
 protected:
  void SetUp() override { ::umask(mUmask = ::umask(022)); }
  ~ClientsTest() override { ::umask(mUmask); }
  mode_t modeOf(const std::string& name) const {
    struct stat found {};
    return ::lstat((mDirectory + "/" + name).c_str(), &found) == 0 ? found.st_mode & 07777U : ~0U;
  }
  mode_t mUmask = 0;
};

std::string create(const std::string& path, std::uint32_t mode) {
  return request(103, 1, le(path.size(), 4) + le(0, 4) + le(mode, 4) + le(0, 4) + path);
}
std::string attributes(const std::string& path) {
  return request(102, 1, le(path.size(), 2) + le(0, 2) + path);
}
bool has(const Remote& remote, const std::string& path) {
  remote.send(attributes(path));
  return remote.receive().size() == 16 + 4 + path.size() + 120;
}

TEST_F(ClientsTest, SeeWhatTheOthersDo) {
  serve({"--max-clients", "2"});
  const Remote one(mSocket);
  ASSERT_TRUE(one.greeted());
  {
    const Remote two(mSocket);
    ASSERT_TRUE(two.greeted());
    EXPECT_TRUE(Remote(mSocket).closedByHost());
    EXPECT_TRUE(logs("refused a client", 1));
    EXPECT_FALSE(has(two, "/new"));
    one.send(create("/new", 0600));
    one.receive();
    EXPECT_TRUE(has(two, "/new"));
  }
  ASSERT_TRUE(eventually([&] { return logged("the client left") == 1; }));
  EXPECT_TRUE(Remote(mSocket).greeted());
}

// What clients leave behind is finished beside those that come, up to a bound.
TEST_F(ClientsTest, DoNotWaitForTheirPredecessors) {
  const std::string stuck = mDirectory + "/stuck";
  ::setenv("STUCK_WHILE", stuck.c_str(), 1);
  std::ofstream(stuck) << "";
  serve({"--max-clients", "1", "--module", HOST_MODULES "stuck_module.so"});
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(Remote(mSocket).receive(), request(100, 1234, "A")) << i;
    EXPECT_TRUE(eventually([&] { return logged("the client left") == i + 1; }));
  }
  EXPECT_TRUE(Remote(mSocket).closedByHost());
  EXPECT_TRUE(logs("does the disk hang", 1));
  fs::remove(stuck);
  EXPECT_TRUE(eventually([&] { return Remote(mSocket).receive() == request(100, 1234, "A"); }));
}

TEST_F(ClientsTest, AreRootTheHostsUserAndTheOneThatIsNamed) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can pose as another user";
  ::chmod(mDirectory.c_str(), 0755);
  for (const auto& [user, admitted] : {std::pair{"", false}, {"nobody", true}, {"daemon", false}}) {
    fs::remove(mLog);
    serve(*user == '\0' ? std::vector<std::string>{} : std::vector<std::string>{"--user", user});
    EXPECT_EQ(modeOf("socket"), 0600U);
    EXPECT_TRUE(Remote(mSocket).greeted());
    if (!admitted) ::chmod(mSocket.c_str(), 0666);
    const pid_t child = ::fork();
    if (child == 0) {
      if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
      const Remote remote(mSocket);
      ::_exit(remote.connected && (admitted ? remote.greeted() : remote.closedByHost()) ? 0 : 1);
    }
    EXPECT_EQ(zor::test::waitFor(child), 0) << user;
    EXPECT_TRUE(logs("it runs as user 65534, who may not connect", admitted ? 0 : 1));
    ::kill(mPid, SIGTERM);
    EXPECT_EQ(exitCode(), 0);
  }
}

TEST_F(ClientsTest, GetTheModesThatTheyAskFor) {
  ::umask(077);
  serve({"--trace-file", mDirectory + "/trace"});
  ::umask(022);
  const Remote remote(mSocket);
  ASSERT_TRUE(remote.greeted());
  remote.send(create("/file", 0664) + create("/parent/file", 0600) +
              request(114, 2, le(0, 4) + le(4, 2) + le(0775, 2) + "/dir"));
  for (int i = 0; i < 3; ++i) remote.receive();
  const std::pair<const char*, mode_t> expected[] = {
      {"disk/file", 0664},        {"disk/dir", 0775}, {"disk/parent", 0775},
      {"disk/parent/file", 0600}, {"socket", 0600},   {"trace", 0600}};
  for (const auto& [name, mode] : expected) EXPECT_EQ(modeOf(name), mode) << name;
}

// Neither a link nor another directory in its place is the disk.
TEST_F(ClientsTest, GetNothingElseThanTheDisk) {
  const std::string disk = mDirectory + "/disk", away = mDirectory + "/away";
  std::ofstream(disk + "/own") << "";
  fs::create_directory(mDirectory + "/other");
  for (const char* sandbox : {"--sandbox=auto", "--sandbox=off"}) {
    fs::remove(mLog);
    serve({sandbox});
    for (const bool link : {true, false}) {
      fs::rename(disk, away);
      link ? fs::create_symlink(away, disk) : fs::rename(mDirectory + "/other", disk);
      EXPECT_TRUE(Remote(mSocket).closedByHost());
      link ? void(fs::remove(disk)) : fs::rename(disk, mDirectory + "/other");
      fs::rename(away, disk);
      const Remote remote(mSocket);
      EXPECT_TRUE(remote.greeted() && has(remote, "/own"));
    }
    EXPECT_TRUE(logs("is gone", 2)) << "once each, and not to each that was refused";
    EXPECT_TRUE(logs("is back", 2));
    struct statvfs status {};
    ::statvfs(disk.c_str(), &status);
    EXPECT_TRUE(logs("(setuid)", ::geteuid() == 0 && (status.f_flag & ST_NOSUID) == 0));
    ::kill(mPid, SIGTERM);
    EXPECT_EQ(exitCode(), 0);
  }
  // A driver that met something else: it is asked what it serves where it could serve all.
  fs::remove(mLog);
  serve({"--sandbox=off", "--module", HOST_MODULES "late_module.so"});
  const Remote remote(mSocket);
  EXPECT_EQ(remote.receive(), request(100, 1234, "A"));
  EXPECT_TRUE(remote.closedByHost());
}

// Said also while nobody is connected.
TEST_F(ClientsTest, AreNotNeededToSeeThatTheDiskIsGone) {
  serve();
  fs::rename(mDirectory + "/disk", mDirectory + "/away");
  EXPECT_TRUE(eventually([&] { return logged("is gone") == 1; }));
  fs::rename(mDirectory + "/away", mDirectory + "/disk");
  EXPECT_TRUE(eventually([&] { return logged("is back") == 1; }));
  EXPECT_TRUE(Remote(mSocket).greeted());
}

}  // namespace
}  // namespace host_test
