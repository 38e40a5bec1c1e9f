// The drive as programs see it: a real mount of a disk that a real host serves.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <regex>
#include <thread>

#include "support/delay_relay.h"
#include "support/served_disk.h"

namespace zor::test {
namespace {

using namespace std::chrono_literals;
using client::test::readFile;
using client::test::writeFile;
using ::testing::HasSubstr;
using ::testing::Not;

class MountTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const int fuse = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fuse < 0) GTEST_SKIP() << "there is no /dev/fuse to mount with";
    ::close(fuse);
    fs::create_directory(mDrive);
    fs::create_directory(mDisk.beside("work"));
  }
  ~MountTest() override {
    if (mMount > 0) unmount();
    if (HasFailure()) {
      std::fprintf(stderr, "the mount:\n%.4000s\n", readFile(mLog).c_str());
    }
  }

  void mount(Arguments options = {}) {
    Arguments arguments{MOUNT_PROGRAM, "-f"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.insert(arguments.end(), {mSocket, mDrive.string()});
    mMount = spawn(arguments, "/dev/null", mLog);
    ASSERT_TRUE(eventually([this] { return device(mDrive) != device(mDisk.root()); }));
  }
  /// The exit code.
  int unmount(int signal = SIGTERM) {
    ::kill(mMount, signal);
    return waitFor(std::exchange(mMount, -1));
  }
  static dev_t device(const fs::path& path) {
    struct stat status {};
    ::stat(path.c_str(), &status);
    return status.st_dev;
  }

  /// Runs a script in a directory of its own; what it prints is returned when
  /// it fails.
  std::string run(const std::string& script) {
    const std::string out = mDisk.beside("out");
    const std::string setting = "exec 2>&1; set -eux; DRIVE='" + mDrive.string() + "'; DISK='" +
                                mDisk.root().string() + "'; cd '" + mDisk.beside("work").string() +
                                "'; ";
    const int code = waitFor(spawn({"sh", "-c", setting + script}, out, "/dev/null"));
    if (code == 0) return "";
    const std::string printed = readFile(out);  // the last of its commands is the one that failed
    return "exit code " + std::to_string(code) + "\n" +
           printed.substr(printed.size() - std::min<std::size_t>(printed.size(), 500));
  }

  /// The number of requests of a kind, from the metrics that a signal makes the program print.
  std::uint64_t requests(const std::string& kind = "total") {
    const std::regex expression("udisk-mount: " + kind + ": ([0-9]+) requests");
    const std::size_t before = readFile(mLog).size();
    ::kill(mMount, SIGUSR1);
    std::string text;
    EXPECT_TRUE(eventually([&] {
      text = readFile(mLog).substr(before);
      return text.find("small files") != std::string::npos;
    })) << text;
    std::smatch match;
    return std::regex_search(text, match, expression) ? std::stoull(match[1]) : 0;
  }

  ServedDisk mDisk;
  const fs::path mDrive = mDisk.beside("drive");
  std::string mSocket = mDisk.socket();
  const std::string mLog = mDisk.beside("mount.log");
  pid_t mMount = -1;
};

struct Program {
  const char* name;
  const char* script;
};

constexpr const char* kTree =
    "mkdir -p t/a/b 't/with space' t/empty; for i in $(seq 50); do seq $i 9000 > t/a/f$i; done; "
    "head -c 3000000 /dev/urandom > t/a/b/big; echo x > \"t/with space/Grüße\n.txt\"; ";

void PrintTo(const Program& program, std::ostream* out) { *out << program.name; }

class Programs : public MountTest, public ::testing::WithParamInterface<Program> {};

TEST_P(Programs, Work) {
  mount({"-o", "quiet"});
  EXPECT_EQ(run(std::string(kTree) + GetParam().script), "");
  EXPECT_EQ(unmount(), 0) << readFile(mLog);
}

const Program kPrograms[] = {
    {"Cp", "cp -r t $DRIVE/; diff -r t $DISK/t; cp -rp $DRIVE/t back; diff -r t back"},
    {"Tar",
     "tar cf - t | tar xf - -C $DRIVE; diff -r t $DISK/t; "
     "tar cf - -C $DRIVE t | tar xf - --one-top-level=back; diff -r t back/t"},
    {"Rsync",
     "rsync -a t $DRIVE; diff -r t $DISK/t; echo more >> t/a/f7; rsync -rc t $DRIVE; "
     "diff -r t $DISK/t; rsync -r --delete t/empty/ $DRIVE/t/; test -z \"$(ls $DISK/t)\""},
    {"Git",
     "export GIT_CONFIG_GLOBAL=$PWD/.gitconfig; git config --global user.email a@b; "
     "git config --global user.name a; git config --global --add safe.directory '*'; "
     "git init -q s; cp -r t s/; git -C s add .; git -C s commit -qm one; "
     "git clone -q s $DRIVE/c; cd $DRIVE/c; test -z \"$(git status --porcelain)\"; "
     "echo new > new; git add new; git commit -qm two; git fsck --strict; git gc -q; "
     "cd -; git clone -q $DISK/c c2; test -f c2/new"},
    {"Sqlite",
     "for mode in delete wal; do sqlite3 $DRIVE/$mode.db \"PRAGMA journal_mode=$mode; "
     "CREATE TABLE n(i INTEGER PRIMARY KEY, t TEXT);\"; for i in 1 2 3 4 5; do sqlite3 "
     "$DRIVE/$mode.db \"BEGIN; WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 "
     "FROM c WHERE x<2000) INSERT INTO n(t) SELECT hex(randomblob(50)) FROM c; COMMIT;\"; "
     "done; test $(sqlite3 $DISK/$mode.db 'SELECT count(*) FROM n') = 10000; "
     "test $(sqlite3 $DRIVE/$mode.db 'PRAGMA integrity_check') = ok; done; "
     "sqlite3 $DRIVE/new.db 'CREATE TABLE n(i); INSERT INTO n VALUES (1);'"},
    {"Compiler",
     "mkdir $DRIVE/p; cd $DRIVE/p; echo 'int f(); int main() { return f(); }' > m.cpp; "
     "echo 'int f() { return 0; }' > f.cpp; printf 'm: m.o f.o\\n\\tc++ -o m m.o f.o\\n' "
     "> Makefile; make -s CXX=c++; ./m; touch f.cpp; make -s CXX=c++; ./m"},
    {"Editors",
     "cd $DRIVE; echo one > text; chmod 640 text; echo two > .text.tmp; "
     "mv .text.tmp text; grep -q two $DISK/text; cp text text~; echo three > text; "
     "rm text~; mv text 'a'; ln a b; test $(stat -c %h a) = 2; truncate -s 99 b; "
     "test $(stat -c %s a) = 99; exec 3<>a; truncate -s 70 b; printf z >&3; exec 4>>b; "
     "truncate -s 60 a; printf y >&4; test $(stat -c %s a) = 61; truncate -s 70 a; exec 4>&-; "
     "perl -e 'open(F, \"+<\", \"b\"); sysseek(F, 90, 0); syswrite(F, \"more\"); @s = stat(\"a\"); "
     "close(F); exit(-s \"a\" != 94)'; cmp a $DISK/b; "
     "seq 99 > e; ln e f; truncate -s 4 f; rm f; echo end >> e; test $(stat -c %s $DISK/e) = 8; rm "
     "e; "
     "perl -e 'rename \"a\", \"b\"'; test -e a -a -e b; "
     "test $(stat -c %s a) = 94; exec 3>&-; echo four >> b; grep -aq four a; "
     "ln b c; exec 4<b; rm b; test $(stat -c %h a) = 2; exec 4>&-; test $(stat -c %h a) = 2; rm c; "
     "test $(stat -c %h a) = 1; exec 3<>a; rm a; echo five >&3; exec 3>&-; "
     // The kernel reports the last close a little later.
     "for i in $(seq 1000); do test -z \"$(ls -A $DISK)\" && exit; sleep 0.01; done; exit 1"},
    {"Names",
     "cd $DRIVE; printf 0000000000 > a; ln a b; exec 3>>b; printf xxxxx >&3; grep -q xxxxx a; "
     "truncate -s 3 a; printf y >&3; exec 3>&-; test $(cat $DISK/a) = 000y; "
     "(for i in $(seq 50); do echo one >> a; done) & for i in $(seq 50); do echo two >> b; done; "
     "wait; test $(wc -l < $DISK/a) = 100; rm b; exec 3>>a; echo own >&3; echo other >> $DISK/a; "
     "sleep 1.1; echo own >&3; exec 3>&-; test $(tail -n 3 a | tr '\\n' ,) = own,other,own,"},
    // What a host that is not root could not open for the next request.
    {"Permissions",
     "cd $DRIVE; (umask 222; exec 3>f; test $(stat -c %a f) = 444; test $(stat -c %a $DISK/f) = "
     "644; "
     "printf abc >&3; chmod 40 f; test $(stat -c %a f) = 40; test $(stat -c %a $DISK/f) = 640; "
     "printf def >&3); "
     "for i in $(seq 1000); do test $(stat -c %a $DISK/f) = 40 && break; sleep 0.01; done; "
     "chmod 400 f; test $(stat -c %a $DISK/f) = 400; test $(cat f) = abcdef; "
     "(umask 222; exec 3>g; ln g h; rm g); "
     "for i in $(seq 1000); do test $(stat -c %a $DISK/h) = 444 && exit; sleep 0.01; done; exit 1"},
    {"Descriptors",
     "cd $DRIVE; mkdir d; : > d/first; perl -e 'for $n (\"a\" .. \"c\") { "
     // The attributes of a file while it is made, with data, closed, and with a second name.
     "sysopen(F, \"d/$n\", 65, 0640); @s = stat F; syswrite F, \"x\"; @t = stat F; close F; "
     "@u = stat \"d/$n\"; link \"d/$n\", \"d/l$n\"; @v = lstat \"d/l$n\"; "
     "die \"number\" if $s[1] != $u[1] || $t[1] != $u[1] || $v[1] != $u[1]; "
     "die \"mode\" if $s[2] != 0100640; die \"time\" if $t[9] != $u[9]; } "
     "opendir D, \"d\"; open F, \">d/late\"; rewinddir D; "
     "die \"late\" unless grep { $_ eq \"late\" } readdir D; "
     "unlink \"d/late\"; @s = stat F; die \"links\" if $s[3] != 0; "
     "mkdir \"e\"; opendir E, \"e\"; rmdir \"e\"; @s = stat E; die \"gone\" if !@s || $s[3]; '; "
     "test \"$(ls -i d | sed \"s/^ *//\")\" = \"$(cd d; stat -c '%i %n' *)\"; "
     "test \"$(ls -ia d | tr -s ' ' '\\n' | head -n 1)\" = $(stat -c %i d)"},
    {"Offsets",
     "cd $DRIVE; dd if=/dev/urandom of=$OLDPWD/r bs=1000 count=3000 status=none; "
     "for i in $(seq 0 299 | shuf); do dd if=$OLDPWD/r of=f bs=10000 skip=$i seek=$i "
     "count=1 conv=notrunc status=none; done; cmp f $OLDPWD/r; cmp $DISK/f $OLDPWD/r; "
     "truncate -s 30M f; truncate -s 12M f; test $(stat -c %s $DISK/f) = 12582912; "
     "cmp -n 3000000 f $OLDPWD/r"},
};

std::string nameOf(const ::testing::TestParamInfo<Program>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(On, Programs, ::testing::ValuesIn(kPrograms), nameOf);

TEST_F(MountTest, WhatTheProtocolCannotDoFailsAtOnce) {
  writeFile(mDisk / "f", "text");
  fs::create_directory(mDisk / "d");
  writeFile(mDisk / "d/inside", "");
  mount();
  const std::string file = mDrive / "f";
  const std::string added = mDrive / "added";
  const timespec past[2] = {{1, 0}, {1, 0}};
  const auto errnoOf = [](int result) { return result == 0 ? 0 : errno; };
  EXPECT_EQ(errnoOf(::symlink("f", added.c_str())), EPERM);
  EXPECT_EQ(errnoOf(::mkfifo(added.c_str(), 0600)), EPERM);
  EXPECT_EQ(errnoOf(::utimensat(AT_FDCWD, file.c_str(), past, 0)), EPERM);
  EXPECT_EQ(errnoOf(::setxattr(file.c_str(), "user.a", "b", 1, 0)), EOPNOTSUPP);
  EXPECT_EQ(errnoOf(::mkdir((mDrive / std::string(256, 'n')).c_str(), 0700)), ENAMETOOLONG);
  EXPECT_EQ(errnoOf(::rmdir((mDrive / "d").c_str())), ENOTEMPTY);
  EXPECT_EQ(errnoOf(::rmdir(file.c_str())), ENOTDIR);
  EXPECT_EQ(unmount(SIGINT), 0);
  mount({"-o", "quiet"});
  EXPECT_EQ(errnoOf(::utimensat(AT_FDCWD, file.c_str(), past, 0)), 0);
}

TEST_F(MountTest, AReadOnlyDiskIsMountedSo) {
  mDisk.stop(SIGTERM);
  mDisk.serve({"--read-only"});
  writeFile(mDisk / "f", "text");
  mount();
  EXPECT_EQ(readFile(mDrive / "f"), "text");
  EXPECT_EQ(::open((mDrive / "f").c_str(), O_WRONLY | O_CLOEXEC), -1);
  EXPECT_EQ(errno, EROFS);
}

TEST_F(MountTest, OtherUsersSeeWhatPermissionsLetThemSee) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user for a while";
  fs::permissions(mDisk.root().parent_path(), fs::perms(0711));
  writeFile(mDisk / "private", "secret");
  writeFile(mDisk / "public", "news");
  fs::permissions(mDisk / "private", fs::perms(0600));
  fs::permissions(mDisk / "public", fs::perms(0644));
  const std::string users =
      "as() { id=$1; shift; setpriv --reuid $id --regid $id --clear-groups \"$@\"; }; "
      "no() { if as \"$@\"; then exit 1; fi; }; cd $DRIVE; ";
  mount({"-o", "allow_other"});
  EXPECT_EQ(run(users + "as 65534 cat public; cat private; no 65534 cat private; "
                        "no 65534 cp private public; no 65534 rm -f public"),
            "");
  EXPECT_EQ(unmount(), 0);
  // What counts is what files are shown as.
  mount({"-o", "allow_other,uid=65534,umask=077"});
  EXPECT_EQ(run(users + "as 65534 cat private; no 65533 ls ."), "");
}

TEST_F(MountTest, OptionsReachTheDrive) {
  writeFile(mDisk / "f", "text");
  const std::string size = "test $(stat -c %s $DRIVE/f) = ";
  mount({"-o", "attr_timeout=0", "--stats"});
  EXPECT_EQ(run(size + "4; echo longer > $DISK/f; " + size + "7; echo > $DRIVE/new"), "");
  EXPECT_EQ(requests("sync"), 1U) << "close asks for a sync";
  const std::size_t before = readFile(mLog).size();
  EXPECT_EQ(unmount(), 0);
  EXPECT_NE(readFile(mLog).find("total: ", before), std::string::npos) << "at the end";
  mount({"-o", "attr_timeout=3600,nosync"});
  EXPECT_EQ(run(size + "7; echo shorter again > $DISK/f; " + size + "7; echo > $DRIVE/newer"), "");
  EXPECT_EQ(requests("sync"), 0U);
  EXPECT_EQ(readFile(mDisk / "newer"), "\n");
}

TEST_F(MountTest, ADirectoryOfSixtyThousandListsWholly) {
  for (int i = 0; i < 60000; ++i) {
    ::close(::open((mDisk / std::to_string(i)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  }
  mount();
  EXPECT_EQ(run("test $(ls -f $DRIVE | sort -u | wc -l) = 60002"), "");
}

TEST_F(MountTest, ASlowLinkIsCrossedSeldom) {
  const auto old = fs::file_time_type::clock::now() - std::chrono::hours(1);
  for (int i = 0; i < 2000; ++i) {
    const fs::path directory = mDisk / std::to_string(i / 100);
    fs::create_directory(directory);
    // cp goes by inode number: against the order of the names here.
    const fs::path file = directory / std::to_string(9999 - i);
    writeFile(file, std::string(4096, static_cast<char>(i)));
    fs::last_write_time(file, old);
  }
  mSocket = mDisk.beside("slow").string();
  const DelayRelay relay(mSocket, mDisk.socket(), 20ms);
  mount();
  const std::uint64_t start = requests();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(run("cp -r $DRIVE copy; diff -r copy $DISK"), "");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 40ms) << "the relay does not delay";
  const std::uint64_t read = requests();
  EXPECT_LE(read - start, 60U) << readFile(mLog);
  std::this_thread::sleep_for(1100ms);
  EXPECT_EQ(run("test $(find $DRIVE -type f -size 8 | wc -l) = 2000"), "");
  const std::uint64_t found = requests();
  // One for each directory; find also calls statfs.
  EXPECT_LE(found - read, 22U) << readFile(mLog);
  std::this_thread::sleep_for(1100ms);
  EXPECT_EQ(run("test $(ls -l $DRIVE/7 | wc -l) = 101"), "");
  EXPECT_EQ(requests() - found, 1U) << readFile(mLog);
}

TEST_F(MountTest, EveryProgramReadsWhatItWroteWhateverOthersRename) {
  mount();
  std::vector<std::thread> programs;
  for (unsigned seed = 0; seed < 5; ++seed) {
    programs.emplace_back([this, seed] {
      std::minstd_rand random(seed + 1);
      std::string name = mDrive / ("f" + std::to_string(seed));
      std::string expected;
      const int fd = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
      for (int i = 0; i < 1500; ++i) {
        const std::string text = std::to_string(random());
        const std::size_t at = random() % (expected.size() + 1);
        std::string found(200, '\0');
        const auto renamed = [&](const std::string& to) {
          ASSERT_EQ(::rename(name.c_str(), to.c_str()), 0);
          name = to;
        };
        switch (random() % 5) {
          case 0:
            std::ofstream(name, std::ios::app) << text;
            expected += text;
            break;
          case 1:
            ASSERT_EQ(::pwrite(fd, text.data(), text.size(), off_t(at)), std::ssize(text));
            expected.resize(std::max(expected.size(), at + text.size()));
            expected.replace(at, text.size(), text);
            break;
          case 2:
            renamed(name + 'x');
            if (name.size() < 100) break;
            ASSERT_EQ(::ftruncate(fd, off_t(at)), 0);
            expected.resize(at);
            renamed(name.substr(0, 60));
            break;
          default:
            found.resize(std::size_t(std::max(0L, ::pread(fd, found.data(), 200, off_t(at)))));
            ASSERT_EQ(found, expected.substr(at, 200)) << i << " at " << at;
            ASSERT_EQ(fs::file_size(name), expected.size()) << i;
        }
      }
      ASSERT_EQ(::close(fd), 0);
      EXPECT_EQ(readFile(mDisk / fs::path(name).filename()), expected);
    });
  }
  for (std::thread& program : programs) program.join();
  EXPECT_EQ(unmount(), 0) << readFile(mLog);
}

TEST_F(MountTest, ACopyOutlivesItsHost) {
  mount();
  std::atomic<bool> done{false};
  std::thread killer([&] {
    while (!done) {
      std::this_thread::sleep_for(150ms);
      mDisk.stop(SIGKILL);
      mDisk.serve();
    }
  });
  const std::string result = run(
      std::string(kTree) +
      "for i in 1 2 3 4; do cp -r t $DRIVE/$i; cp -r $DRIVE/$i back$i; mv $DRIVE/$i $DRIVE/m$i; "
      "rm -r $DRIVE/m$i/a; done");
  done = true;
  killer.join();
  EXPECT_EQ(result, "");
  EXPECT_EQ(run("for i in 1 2 3 4; do diff -r t back$i; diff t/with* $DISK/m$i/with*; "
                "test ! -e $DISK/m$i/a; done"),
            "");
  EXPECT_EQ(unmount(), 0) << readFile(mLog);
}

TEST_F(MountTest, AHostThatStaysAwayIsAnErrorAndUnmountingReportsWhatIsLost) {
  const std::string name = "f\x1b";  // what could drive a terminal is escaped
  writeFile(mDisk / name, "text");
  mount({"-o", "timeout=0.5,attr_timeout=0"});
  EXPECT_EQ(run("echo more >> $DRIVE/f*; test $(cat $DISK/f*) = textmore"), "");
  const int fd = ::open((mDrive / name).c_str(), O_RDWR | O_CLOEXEC);
  mDisk.stop(SIGKILL);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(::pwrite(fd, "TEXT", 4, 0), 4);
  EXPECT_EQ(::fsync(fd), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 25s) << "without the option it is 30 s";
  const std::string named = "/f\\x1b: could not be written completely\n";
  EXPECT_TRUE(eventually([&] { return readFile(mLog).find(named) != std::string::npos; }));
  const std::size_t before = readFile(mLog).size();
  requests();
  EXPECT_NE(readFile(mLog).find(named, before), std::string::npos) << "on SIGUSR1";
  EXPECT_THAT(run("cat $DRIVE/other"), HasSubstr("Input/output error"));
  ::close(fd);
  EXPECT_EQ(unmount(), 1);
  EXPECT_THAT(readFile(mLog), HasSubstr("completely:\nudisk-mount:   /f\\x1b\n"));
  EXPECT_EQ(device(mDrive), device(mDisk.root()));
}

TEST_F(MountTest, EndsWhateverTheHostDoes) {
  writeFile(mDisk / "f", "text");
  mount({"-o", "timeout=90,attr_timeout=0"});
  const int fd = ::open((mDrive / "f").c_str(), O_RDWR | O_CLOEXEC);
  mDisk.signal(SIGSTOP);
  EXPECT_EQ(::pwrite(fd, "TEXT", 4, 0), 4);
  const pid_t waiting = spawn({"stat", mDrive / "other"}, "/dev/null", "/dev/null");
  std::this_thread::sleep_for(200ms);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(unmount(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 45s);
  EXPECT_EQ(waitFor(waiting), 1);
  ::close(fd);
  EXPECT_THAT(readFile(mLog), HasSubstr("/f"));
  EXPECT_EQ(device(mDrive), device(mDisk.root()));
  mDisk.signal(SIGCONT);
}

TEST_F(MountTest, GoesToTheBackgroundOnceItIsMountedOrReportsWhyNot) {
  const std::string drive = mDrive;
  EXPECT_EQ(run(std::string(MOUNT_PROGRAM) + " " + mSocket + " " + drive +
                "; mountpoint -q $DRIVE; fusermount3 -u $DRIVE; ! mountpoint -q $DRIVE"),
            "");
  EXPECT_THAT(run(std::string(MOUNT_PROGRAM) + " " + mSocket + "x " + drive),
              ::testing::AllOf(HasSubstr("exit code 1"), HasSubstr("cannot connect")));
}

}  // namespace
}  // namespace zor::test
