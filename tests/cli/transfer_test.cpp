// What put and get do to files that are there already, and when something steps in.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <atomic>

#include "support/packet_relay.h"
#include "support/served_disk.h"

namespace zor::client::test {
namespace {

using ::testing::HasSubstr;
using zor::test::Arguments;
using zor::test::eventually;
using zor::test::spawn;
using zor::test::waitFor;

struct TransferTest : ::testing::Test {
  TransferTest() { fs::create_directory(mDisk.beside("local")); }

  std::string local(const std::string& name) const { return mDisk.beside("local/" + name); }

  pid_t start(Arguments arguments, const std::string& socket) {
    arguments.insert(arguments.begin(), {REMOTE_PROGRAM, "--socket", socket});
    return spawn(arguments, mDisk.beside("out"), mDisk.beside("err"));
  }
  int run(const Arguments& arguments) {
    const int status = waitFor(start(arguments, mDisk.socket()));
    mErr = readFile(mDisk.beside("err"));
    return status;
  }
  /// Runs a command while `hook` sees what it sends.
  int run(const Arguments& arguments, PacketRelay::Hook hook) {
    const std::string path = mDisk.beside("relay");
    const PacketRelay relay(path, mDisk.socket(), std::move(hook));
    mClient = start(arguments, path);
    const int status = waitFor(mClient);
    mErr = readFile(mDisk.beside("err"));
    mClient = 0;
    return status;
  }
  void signalClient(int number) {
    EXPECT_TRUE(eventually([this] { return mClient != 0; }));
    ::kill(mClient, number);
  }
  std::ptrdiff_t namesOnDisk() { return std::distance(fs::directory_iterator(mDisk.root()), {}); }
  static unsigned modeOf(const fs::path& path) {
    return static_cast<unsigned>(fs::symlink_status(path).permissions());
  }

  zor::test::ServedDisk mDisk;
  std::atomic<pid_t> mClient{0};
  std::string mErr;
};

TEST_F(TransferTest, WhatStopsASendingLeavesTheOldFile) {
  const auto removeTemporary = [this] {
    for (const auto& entry : fs::directory_iterator(mDisk.root())) {
      if (entry.path().extension() == ".part") fs::remove(entry.path());
    }
  };
  const struct {
    std::function<bool()> onSecondWrite;
    int status;
    const char* message;
    bool clean;
  } kCases[] = {
      {[this] { return signalClient(SIGTERM), true; }, -SIGTERM, "sent 0 files of 1", true},
      {[&] {
         EXPECT_TRUE(eventually([this] { return namesOnDisk() == 2; }));
         removeTemporary();
         return true;
       },
       1, "the file on the disk is as it was", true},
      // What the host serves behind their backs may still come.
      {[] { return false; }, 1, "may be left on the disk: '/.udisk-remote.", false},
      {[this] { return signalClient(SIGKILL), false; }, -SIGKILL, "", false},
  };
  const std::string contents(5 << 20, 'n');
  writeFile(local("f"), contents);
  writeFile(mDisk / "f", "old");
  ::chmod((mDisk / "f").c_str(), 0640);
  EXPECT_EQ(run({"put", local("f"), "/"}), 0) << mErr;
  EXPECT_TRUE(readFile(mDisk / "f") == contents);
  EXPECT_EQ(modeOf(mDisk / "f"), 0640U);
  EXPECT_EQ(namesOnDisk(), 1);
  writeFile(mDisk / "f", "old");
  for (const auto& each : kCases) {
    int writes = 0;
    EXPECT_EQ(run({"put", local("f"), "/"},
                  [&](const Packet& packet) {
                    return packet.cmd != 106 || ++writes != 2 || each.onSecondWrite();
                  }),
              each.status);
    EXPECT_THAT(mErr, HasSubstr(each.message));
    EXPECT_TRUE(readFile(mDisk / "f") == "old") << each.message;
    EXPECT_TRUE(!each.clean || eventually([this] { return namesOnDisk() == 1; })) << each.message;
  }
}

TEST_F(TransferTest, OnlyFilesAreReplacedOnTheDisk) {
  writeFile(local("f"), "new");
  writeFile(mDisk / "end", "old");
  fs::create_symlink("end", mDisk / "link");
  ::mkfifo((mDisk / "pipe").c_str(), 0600);
  fs::create_directories(mDisk / "d/f");
  for (const auto& [target, what] : {std::pair{"/link", "a symbolic link is in its place"},
                                     {"/pipe", "a named pipe"},
                                     {"/d", "a directory"}}) {
    EXPECT_EQ(run({"put", local("f"), target}), 1);
    EXPECT_THAT(mErr, HasSubstr(what));
  }
  EXPECT_EQ(readFile(mDisk / "end"), "old");
  EXPECT_EQ(namesOnDisk(), 4);
  const std::string longest(255, 'l');
  EXPECT_EQ(run({"put", local("f"), longest}), 0) << mErr;
  EXPECT_EQ(readFile(mDisk / longest), "new");
}

TEST_F(TransferTest, FetchedFilesReplaceFilesOnly) {
  writeFile(mDisk / "f", "new");
  ::chmod((mDisk / "f").c_str(), 0666);
  fs::create_directories(local("dir/f"));
  fs::create_directory(local("deep"));
  writeFile(local("deep/end"), "old");
  ::chmod(local("deep/end").c_str(), 0640);
  fs::create_symlink("deep/end", local("link"));
  fs::create_symlink("nothing", local("dangling"));
  const UniqueFd socket = listenAt(local("socket"));
  ASSERT_EQ(::mkfifo(local("pipe").c_str(), 0600), 0);
  const auto type = [this](const char* name) { return fs::symlink_status(local(name)).type(); };

  const pid_t reader = spawn({"cat", local("pipe")}, mDisk.beside("piped"), "/dev/null");
  EXPECT_EQ(run({"get", "f", local("pipe")}), 0) << mErr;
  waitFor(reader);
  EXPECT_EQ(readFile(mDisk.beside("piped")), "new");
  EXPECT_EQ(type("pipe"), fs::file_type::fifo);
  for (const char* output : {"-", "/dev/stdout"}) {
    EXPECT_EQ(run({"get", "f", output}), 0) << mErr;
    EXPECT_EQ(readFile(mDisk.beside("out")), "new");
  }
  if (::geteuid() == 0) {
    // A device of the tests' own, with the numbers of /dev/null.
    ASSERT_EQ(::mknod(local("device").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    EXPECT_EQ(run({"get", "f", local("device")}), 0) << mErr;
    EXPECT_EQ(type("device"), fs::file_type::character);
  }
  EXPECT_EQ(run({"get", "f", local("link")}), 0) << mErr;
  EXPECT_EQ(type("link"), fs::file_type::symlink);
  EXPECT_EQ(readFile(local("deep/end")), "new");
  EXPECT_EQ(modeOf(local("deep/end")), 0640U);

  writeFile(local("deep/f"), "old");
  for (const auto& [options, target, status, message] :
       {std::tuple<Arguments, std::string, int, std::string>{
            {}, "socket", 1, "a socket is in its place"},
        {{}, "dangling", 1, "a symbolic link to nothing"},
        {{}, "dir", 1, "/dir/f': a directory is in its place"},
        {{"-n"}, "deep", 0, "'f' is left as it is"},
        {{"-i"}, "deep", 0, "replace 'f'?"},
        {{"-n", "-i"}, "deep", 2, ""}}) {
    Arguments arguments{"get", "f", local(target)};
    arguments.insert(arguments.begin() + 1, options.begin(), options.end());
    EXPECT_EQ(run(arguments), status) << target;
    EXPECT_THAT(mErr, HasSubstr(message));
  }
  EXPECT_EQ(readFile(local("deep/f")), "old");
  EXPECT_EQ(run({"get", "-n", "f", local("late")},
                [this](const Packet& packet) {
                  if (packet.cmd == 105) writeFile(local("late"), "old");
                  return true;
                }),
            1);
  EXPECT_THAT(mErr, HasSubstr("another program has made it meanwhile"));
  EXPECT_EQ(readFile(local("late")), "old");
  ::umask(077);
  EXPECT_EQ(run({"get", "-n", "f", local("fresh")}), 0) << mErr;
  ::umask(022);
  EXPECT_EQ(modeOf(local("fresh")), 0600U);
}

TEST_F(TransferTest, WideTreesTakeFewDescriptors) {
  for (int i = 0; i < 800; ++i) {
    const fs::path inner = local("wide/" + std::to_string(i));
    fs::create_directories(inner);
    writeFile(inner / "f", "x");
  }
  EXPECT_EQ(waitFor(spawn({"sh", "-c", "ulimit -n 220; exec \"$@\"", "sh", REMOTE_PROGRAM,
                           "--socket", mDisk.socket(), "put", "-r", local("wide"), "/"},
                          "/dev/null", mDisk.beside("err"))),
            0)
      << readFile(mDisk.beside("err"));
}

TEST_F(TransferTest, ADirectoryThatBecomesALinkIsNotSent) {
  fs::create_directories(local("tree/sub"));
  fs::create_directory(local("elsewhere"));
  writeFile(local("tree/sub/a"), "public");
  writeFile(local("elsewhere/a"), "secret");
  EXPECT_EQ(run({"put", "-r", local("tree"), "/"},
                [this](const Packet& packet) {
                  if (packet.cmd == 114 && packet.bytes.ends_with("/sub")) {
                    fs::rename(local("tree/sub"), local("away"));
                    fs::create_directory_symlink(local("elsewhere"), local("tree/sub"));
                  }
                  return true;
                }),
            1);
  EXPECT_THAT(mErr, HasSubstr("cannot read '" + local("tree/sub") + "'"));
  EXPECT_TRUE(fs::is_empty(mDisk / "tree/sub"));
}

TEST_F(TransferTest, WatchReportsWhatChanges) {
  writeFile(mDisk / "changes", "1");
  writeFile(mDisk / "goes", "");
  int checks = 0;
  EXPECT_EQ(run({"watch", "/"},
                [&](const Packet& packet) {
                  if (packet.cmd == 121 && ++checks == 1) {
                    fs::remove(mDisk / "goes");
                    writeFile(mDisk / "comes", "");
                    writeFile(mDisk / "changes", "22");
                  } else if (packet.cmd == 121 && checks == 2) {
                    signalClient(SIGTERM);
                  }
                  return true;
                }),
            0);
  EXPECT_EQ(readFile(mDisk.beside("out")), "~changes\n-goes\n+comes\n");
}

}  // namespace
}  // namespace zor::client::test
