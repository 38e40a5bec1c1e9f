// udisk-remote against a running udisk-host, as two processes.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <vector>

#include "support/served_disk.h"
#include "support/test_bytes.h"

namespace zor::client::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using zor::test::Arguments;
using zor::test::eventually;
using zor::test::spawn;
using zor::test::waitFor;

/// What counts of a tree: name -> type, permission bits, time and contents.
std::map<std::string, std::string> snapshot(const fs::path& root, bool times) {
  std::map<std::string, std::string> tree;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    struct stat status {};
    ::lstat(entry.path().c_str(), &status);
    std::string text = std::to_string(status.st_mode);
    if (times) {
      text += ' ' + std::to_string(status.st_mtim.tv_sec) + '.' +
              std::to_string(status.st_mtim.tv_nsec);
    }
    if (S_ISREG(status.st_mode)) text += ' ' + readFile(entry.path());
    tree[entry.path().lexically_relative(root)] = text;
  }
  return tree;
}

class EndToEndTest : public ::testing::Test {
 protected:
  EndToEndTest() { fs::create_directory(mDisk.beside("local")); }

  std::string local(const std::string& name = "") const {
    return mDisk.beside("local/" + name).string();
  }
  void serve(const Arguments& more) {
    mDisk.stop(SIGTERM);
    mDisk.serve(more);
  }

  pid_t start(Arguments arguments) {
    arguments.insert(arguments.begin(), {REMOTE_PROGRAM, "--socket", mDisk.socket()});
    return spawn(arguments, mDisk.beside("out"), mDisk.beside("err"));
  }

  /// Runs a command to its end; the output is in mOut and mErr.
  int run(const Arguments& arguments) { return finish(start(arguments)); }
  int runShell(const std::string& command) {
    return finish(spawn({"sh", "-c", command}, mDisk.beside("out"), mDisk.beside("err")));
  }
  int finish(pid_t pid) {
    const int status = waitFor(pid);
    mOut = readFile(mDisk.beside("out"));
    mErr = readFile(mDisk.beside("err"));
    return status;
  }

  struct Step {
    Arguments arguments;
    int status;
    std::string out;  ///< exactly
    std::string err;  ///< a part
  };
  void check(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      std::string command;
      for (const std::string& argument : step.arguments) command += ' ' + argument;
      EXPECT_EQ(run(step.arguments), step.status) << command << '\n' << mErr;
      EXPECT_EQ(mOut, step.out) << command;
      EXPECT_THAT(mErr, HasSubstr(step.err)) << command;
    }
  }

  /// A tree with names in several scripts, odd modes, and many small files.
  static void makeTree(const fs::path& root) {
    fs::create_directories(root / "мир/日本語/leer");
    writeFile(root / "empty", "");
    writeFile(root / "мир/日本語/ファイル", "hello");
    writeFile(root / "new\nline \\ '\"", "odd");
    std::string big(3 << 20, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 31) >> 7);
    writeFile(root / "exact", big.substr(0, 1 << 20));
    writeFile(root / "big", big + "tail");
    writeFile(root / "zeros", std::string(2 << 20, '\0'));
    fs::create_directory(root / "many");
    for (int i = 0; i < 700; ++i) {
      writeFile(root / "many" / std::to_string(i), big.substr(static_cast<std::size_t>(i), 97));
    }
    writeFile(root / "sparse", "start");
    fs::resize_file(root / "sparse", (20 << 20) + 1);
    ::chmod((root / "empty").c_str(), 0604);
    ::chmod((root / "exact").c_str(), 0444);
    ::chmod((root / "мир/日本語").c_str(), 0555);
    const timespec times[2] = {{1, 0}, {1234567890, 123456789}};
    ::utimensat(AT_FDCWD, (root / "мир/日本語").c_str(), times, 0);
    ::utimensat(AT_FDCWD, (root / "big").c_str(), times, 0);
  }

  static void expectSparse(const fs::path& path) {
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, (20 << 20) + 1);
    EXPECT_LT(status.st_blocks * 512, 2 << 20) << path << " has lost its hole";
  }

  zor::test::ServedDisk mDisk;
  std::string mOut;
  std::string mErr;
};

TEST_F(EndToEndTest, TreesArriveIdentical) {
  makeTree(mDisk.root());
  const auto expected = snapshot(mDisk.root(), true);
  EXPECT_EQ(run({"get", "-r", "/", local("plain")}), 0) << mErr;
  EXPECT_TRUE(snapshot(local("plain"), true) == expected);
  EXPECT_EQ(run({"get", "-r", "--batch", "/", local("batch")}), 0) << mErr;
  EXPECT_TRUE(snapshot(local("batch"), true) == expected);
  expectSparse(local("plain/sparse"));
  EXPECT_THAT(mErr, HasSubstr("fetched 707 files"));
}

TEST_F(EndToEndTest, TreesAreSentIdentical) {
  makeTree(local("tree"));
  const auto expected = snapshot(local("tree"), false);
  fs::create_directory(mDisk / "into");
  check({{{"put", "-r", local("tree"), "into"}, 0, "", "sent 707 files"},
         {{"put", "-r", local("tree/."), "new"}, 0, "", "sent 707 files"},
         {{"put", local("tree/empty"), "/new/big"}, 0, "", "sent 1 file, 0 bytes"}});
  EXPECT_TRUE(snapshot(mDisk / "into/tree", false) == expected);
  expectSparse(mDisk / "into/tree/sparse");
  EXPECT_EQ(fs::file_size(mDisk / "new/big"), 0U) << "an existing file is replaced";
  EXPECT_EQ(readFile(mDisk / "new/мир/日本語/ファイル"), "hello");
}

TEST_F(EndToEndTest, WhatCannotBeCarriedIsNamedAndTheRestArrives) {
  writeFile(mDisk / "file", "contents");
  fs::create_symlink("file", mDisk / "link");
  ::mkfifo((mDisk / "pipe").c_str(), 0600);
  fs::create_symlink("x", local("link"));
  writeFile(local("a"), "a");
  EXPECT_EQ(run({"get", "-r", "/", local("copy")}), 1);
  EXPECT_THAT(mErr, AllOf(HasSubstr("'/link' is left out: a symbolic link"),
                          HasSubstr("'/pipe' is left out: a named pipe"),
                          HasSubstr("fetched 1 file, 8 bytes; 2 failures")));
  EXPECT_EQ(readFile(local("copy/file")), "contents");
  EXPECT_EQ(run({"put", "-r", mDisk.beside("local"), local("nothing"), "/"}), 1);
  EXPECT_THAT(mErr, AllOf(HasSubstr("/link' is left out: a symbolic link"),
                          HasSubstr("cannot send '" + local("nothing"))));
  EXPECT_EQ(readFile(mDisk / "local/a"), "a");
  check({{{"get", "nothing", "file", local()}, 1, "", "cannot fetch '/nothing': no such file"},
         {{"get", "/local", local("x")}, 1, "", "use -r"},
         {{"get", "file", "file", local("x")}, 1, "", "must be a directory"},
         {{"put", local("a"), local("a"), "file"}, 1, "", "must be a directory"},
         {{"get", "file", local("no/such")}, 1, "", "cannot write to"}});
  EXPECT_EQ(readFile(local("file")), "contents") << "the other source of a failing get";
}

TEST_F(EndToEndTest, ShowsFiles) {
  fs::create_directories(mDisk / "dir/sub");
  writeFile(mDisk / "dir/b", "bb");
  writeFile(mDisk / "dir/.hidden", "");
  writeFile(mDisk / "a\x1b", "a");
  fs::create_symlink("dir/b", mDisk / "link");
  fs::create_symlink("/etc/passwd", mDisk / "out");
  const timespec times[2] = {{0, 0}, {86400, 5}};
  ::utimensat(AT_FDCWD, (mDisk / "dir/b").c_str(), times, 0);
  ::chmod((mDisk / "dir/b").c_str(), 0640);
  serve({"--name", "My disk"});
  const std::string owner = std::to_string(::getuid()) + " " + std::to_string(::getgid());
  ::setenv("TZ", "UTC", 1);
  check({
      {{"ls"}, 0, "a\x1b\ndir\nlink\nout\n", ""},
      {{"ls", "-a", "dir"}, 0, ".\n..\n.hidden\nb\nsub\n", ""},
      {{"ls", "-l", "/dir/b"}, 0, "-rw-r----- 1 " + owner + " 2 1970-01-02 00:00 /dir/b\n", ""},
      {{"ls", "-R", "/dir"}, 0, "/dir:\nb\nsub\n\n/dir/sub:\n", ""},
      {{"ls", "link", "dir/sub", "none"},
       1,
       "/link\n\n/dir/sub:\n",
       "cannot list '/none': no such file"},
      {{"cat", "dir/b", "/link"}, 0, "bbbb", ""},
      {{"cat", "none", "dir", "dir/b"}, 1, "bb", "cannot show '/dir': it is a directory"},
      {{"cat", "out"}, 1, "", "nothing came through the symbolic link"},
      {{"stat", "none"}, 1, "", "cannot examine '/none'"},
      {{"watch", "none"}, 1, "", "cannot watch '/none'"},
  });
  EXPECT_EQ(run({"stat", "dir/b"}), 0);
  EXPECT_THAT(mOut, AllOf(HasSubstr("Size: 2\t"), HasSubstr("(0640/-rw-r-----)"),
                          HasSubstr("Modify: 1970-01-02 00:00:00.000000005 +0000")));
  EXPECT_EQ(run({"df", "-h"}), 0);
  EXPECT_THAT(mOut, HasSubstr("% My disk\n"));
}

TEST_F(EndToEndTest, ChangesFiles) {
  writeFile(mDisk / "f", "data");
  ::umask(022);
  check({
      {{"mkdir", "a/b"}, 1, "", "use -p"},
      {{"mkdir", "-p", "a/b", "a"}, 0, "", ""},
      {{"mkdir", "a"}, 1, "", "exists already"},
      {{"mkdir", "-p", "x\\y"}, 1, "", "backslash"},
      {{"mv", "f", "a"}, 0, "", ""},
      {{"ln", "a/f", "a/b"}, 0, "", ""},
      {{"mv", "a/f", "none", "g"}, 1, "", "must be a directory"},
      {{"mv", "none", "a/f", "/"}, 1, "", "done with 1 of 2 names"},
      {{"mv", "n\x1bne", "g"}, 1, "", "cannot move '/n\\x1bne': no such file or directory\n"},
      {{"mv", "f", "none/g"}, 1, "", "the directory '/none' does not exist"},
      {{"chmod", "1751", "f"}, 0, "", ""},
      {{"chown", std::to_string(::getuid()) + ":", "f"}, 2, "", "is not an owner"},
      {{"chown", ":" + std::to_string(::getgid()), "f", "none"}, 1, "", "cannot chown '/none'"},
      {{"sync", "/", "none"}, 1, "", "cannot sync '/none'"},
      {{"rm", "a"}, 1, "", "it is a directory"},
      {{"rm", "-r", "/a/../"}, 1, "", "the whole disk"},
      {{"rm", "none"}, 1, "", "no such file"},
      {{"rm", "-f", "none"}, 0, "", ""},
  });
  EXPECT_EQ(readFile(mDisk / "a/b/f"), "data");
  EXPECT_EQ(fs::hard_link_count(mDisk / "f"), 2U);
  EXPECT_EQ(fs::status(mDisk / "f").permissions(), fs::perms(01751));
  makeTree(mDisk / "tree");
  ::chmod((mDisk / "tree/мир/日本語").c_str(), 0755);
  fs::create_symlink("../f", mDisk / "tree/link");
  check({{{"rm", "-r", "tree", "none"}, 1, "", "removed 713 names; 1 failure"},
         {{"rm", "-r", "a", "f"}, 0, "", ""}});
  EXPECT_TRUE(fs::is_empty(mDisk.root()));
}

TEST_F(EndToEndTest, LengthsBeyondTheHostsLimitAreExact) {
  const std::string contents(std::size_t{12} << 20, 'x');
  for (const char* name : {"f.txt", "f.doc", "f"}) {
    const fs::path path = mDisk / name;
    writeFile(path, contents);
    check({{{"truncate", "-s", "11M", name}, 0, "", ""}});
    EXPECT_TRUE(readFile(path) == contents.substr(0, 11 << 20)) << name;
    check({{{"truncate", "-s", "30M", name}, 0, "", ""}});
    EXPECT_EQ(fs::file_size(path), std::uintmax_t{30} << 20) << name;
    check({{{"truncate", "-s", "3", name}, 0, "", ""}});
    EXPECT_EQ(readFile(path), "xxx") << name;
    check({{{"truncate", "-s", "2K", name}, 0, "", ""}});
    EXPECT_EQ(fs::file_size(path), 2048U) << name;
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(mDisk.root()), {}), 3) << "no other name stays";
  check({{{"truncate", "-s", "1", "none"}, 1, "", "no such file"},
         {{"truncate", "-s", "1", "/"}, 1, "", "only regular files"},
         {{"truncate", "-s", "1X", "f"}, 2, "", "is not a size"}});
}

TEST_F(EndToEndTest, ReadOnlyDisksAreLeftAlone) {
  writeFile(mDisk / "f", "data");
  writeFile(local("g"), "");
  serve({"--read-only"});
  const Arguments changes[] = {
      {"put", local("g"), "/"}, {"mkdir", "d"},   {"rm", "f"},
      {"mv", "f", "g"},         {"ln", "f", "g"}, {"chmod", "600", "f"},
      {"chown", "1", "f"},      {"sync", "f"},    {"truncate", "-s1", "f"}};
  for (const Arguments& change : changes) check({{change, 1, "", "is read-only"}});
  check({{{"cat", "f"}, 0, "data", ""}});
  EXPECT_EQ(std::distance(fs::directory_iterator(mDisk.root()), {}), 1);
}

TEST_F(EndToEndTest, ADiskThatIsGoneIsReported) {
  writeFile(local("f"), "data");
  fs::rename(mDisk.root(), mDisk.beside("away"));
  check({{{"df"}, 1, "", "its disk is gone"},
         {{"put", local("f"), "/f"}, 1, "", "its disk is gone"}});
  fs::rename(mDisk.beside("away"), mDisk.root());
  check({{{"rm", "-f", "f", "d/f"}, 0, "", ""}, {{"stat", "d/f"}, 1, "", "no such file"}});
}

TEST_F(EndToEndTest, ReportsWrongArgumentsAndHostsThatCannotBeUsed) {
  mDisk.stop(SIGTERM);
  check({{{"ls"}, 1, "", "is it running with this socket?"},
         {{}, 2, "", "subcommand"},
         {{"frobnicate"}, 2, "", ""},
         {{"cat"}, 2, "", "PATH is required"},
         {{"get", "one"}, 2, "", "SRC DEST"},
         {{"--bandwidth", "0", "ls"}, 2, "", "--bandwidth"},
         {{"chmod", "8", "f"}, 2, "", "octal"}});
  EXPECT_EQ(run({"--help"}), 0);
  mDisk.serve({"--max-clients", "1"});
  const pid_t watcher = start({"watch", "/"});
  ASSERT_TRUE(eventually(
      [this] { return readFile(mDisk.beside("log")).find("connected") != std::string::npos; }));
  check({{{"ls"}, 1, "", "it serves as many clients as it may"}});
  ::kill(watcher, SIGTERM);
  waitFor(watcher);
}

TEST_F(EndToEndTest, InterruptedOrAbandonedFetchesLeaveNothingHalf) {
  writeFile(mDisk / "big", std::string(std::size_t{40} << 20, 'x'));
  const auto begun = [this] { return !fs::is_empty(local()); };
  const Arguments slowly{"--bandwidth", "9000", "get", "big", local()};
  pid_t get = start(slowly);
  ASSERT_TRUE(eventually(begun));
  ::kill(get, SIGTERM);
  EXPECT_EQ(waitFor(get), -SIGTERM);
  EXPECT_TRUE(fs::is_empty(local()));

  get = start(slowly);
  ASSERT_TRUE(eventually(begun));
  mDisk.stop(SIGKILL);
  EXPECT_EQ(waitFor(get), 1);
  EXPECT_TRUE(fs::is_empty(local()));
  EXPECT_THAT(readFile(mDisk.beside("err")), HasSubstr("stopped: the host closed the connection"));
}

TEST_F(EndToEndTest, AFileIsNeverSentAsRequests) {
  // What is printed would be a request for removal if the socket were standard output.
  writeFile(mDisk / "evil", hex("27 01 75 00  01 00 00 00  1B 00 00 00  00 00 00 00"
                                "07 00 00 00 '/victim'"));
  writeFile(mDisk / "victim", "stays");
  const std::string cat =
      std::string(REMOTE_PROGRAM) + " --socket " + mDisk.socket() + " cat /evil ";
  for (const std::string closed : {"0<&- >&-", "0<&- >&- 2>&-", "2>&-"}) {
    EXPECT_EQ(runShell("exec " + cat + closed), 0) << closed;
    EXPECT_EQ(run({"ls"}), 0);
    EXPECT_EQ(mOut, "evil\nvictim\n") << closed;
  }
}

TEST_F(EndToEndTest, EndsQuietlyWhenNobodyReads) {
  writeFile(mDisk / "big", std::string(std::size_t{8} << 20, 'x'));
  const std::string command = std::string(REMOTE_PROGRAM) + " --socket " + mDisk.socket() +
                              " cat big 2>" + mDisk.beside("err").string();
  FILE* pipe = ::popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  EXPECT_EQ(std::fgetc(pipe), 'x');
  ::pclose(pipe);
  EXPECT_EQ(readFile(mDisk.beside("err")), "");
}

}  // namespace
}  // namespace zor::client::test
