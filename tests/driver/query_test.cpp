// Attributes and statistics, compared with what the platform says; mount points.
#include <dlfcn.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>

#include "disk_fixture.h"

namespace {

std::size_t gEntrySize = 0;  ///< of every entry of the password database, if not 0

}  // namespace

// The program's own comes before the C library's.
extern "C" int getpwuid_r(uid_t user, passwd* entry, char* memory, std::size_t size,
                          passwd** found) {
  *found = nullptr;
  if (size < gEntrySize) return ERANGE;
  static const auto real =
      reinterpret_cast<decltype(&::getpwuid_r)>(::dlsym(RTLD_NEXT, "getpwuid_r"));
  return real(user, entry, memory, size, found);
}

namespace zor::test {
namespace {

template <class... Values>
std::string le64(Values... values) {
  return (... + le(static_cast<std::uint64_t>(values), 8));
}

TEST_F(DiskTest, AttributesAreThePlatformsOwn) {
  const timespec longAgo[] = {{-5, 7}, {-62135596800, 999999999}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (disk + "/spare").c_str(), longAgo, 0), 0);
  fs::resize_file(disk + "/inside.txt", 6LL << 30);
  fs::create_hard_link(disk + "/inside.txt", disk + "/\xe5\xa4\xa7 \n");
  ::mknod((disk + "/device").c_str(), S_IFBLK | 04600, makedev(0xabc, 0x12345));  // only as root
  for (const auto& entry : fs::directory_iterator(disk)) {
    const std::string name = "/" + entry.path().filename().string();
    const struct stat s = lstatOf(disk + name);
    const std::string attributes =
        le64(s.st_dev, s.st_ino, s.st_nlink, s.st_size, s.st_rdev, s.st_blocks, s.st_blksize,
             s.st_atim.tv_sec, s.st_atim.tv_nsec, s.st_mtim.tv_sec, s.st_mtim.tv_nsec,
             s.st_ctim.tv_sec, s.st_ctim.tv_nsec) +
        le(s.st_mode, 4) + le(s.st_uid, 4) + le(s.st_gid, 4) + le(0, 4);
    EXPECT_EQ(answer(102, le(name.size(), 2) + le(0, 2) + name),
              hexOf(le(name.size(), 2) + le(120, 2) + name + attributes))
        << name;
  }
}

TEST_F(DiskTest, StatisticsAreReadAgainOnceTheDiskMayHaveChanged) {
  // The counts of free blocks and nodes move on their own; the rest stands.
  struct statvfs v {};
  struct statfs s {};
  ::statvfs(disk.c_str(), &v);
  ::statfs(disk.c_str(), &s);
  const std::string any(32, '.'), old = hexOf(std::string(112, 'o'));
  const std::string real = hexOf(le64(s.f_bsize, v.f_frsize, s.f_blocks)) + any +
                           hexOf(le64(v.f_files)) + any +
                           hexOf(le64(v.f_fsid, v.f_flag, v.f_namemax, 0, 0, 0));
  op.SetRootPath((base + "/di").data(), std::string("sk").data());  // the same, labelled "sk"
  using Row = std::pair<std::string, int>;
  for (const auto& [path, matching] :
       {Row{"/x", 2}, Row{"", 2}, Row{"disk", 2}, Row{"disk/x", 1}, Row{"di/x", 1}, Row{"sk/", 1},
        Row{"skx/", 0}, Row{std::string(256, 'd') + "/", 0}, Row{std::string(300, 'd') + "/", 0}}) {
    for (auto& record : Peek::statistics(op)) {
      std::memset(static_cast<void*>(&record->statistics), 'o', 112);
    }
    // Unchanged, the first that matches is answered from memory; changed, all are read again.
    const std::string one = matching > 0 ? real : "", all = matching > 1 ? real + real : one;
    for (const auto& [changed, records] :
         {std::pair{0, matching > 0 ? old : ""}, {1, all}, {0, one}}) {
      Peek::diskChanged(op) = changed;
      const std::string expected = hexOf(le(path.size(), 4) + le(112, 4) + path) + records;
      EXPECT_EQ(answer(113, le(path.size(), 4) + le(0, 4) + path, expected), expected) << path;
      EXPECT_EQ(Peek::diskChanged(op), 0);
    }
  }
}

TEST_F(DiskTest, MountingMakesADirectoryOfThatName) {
  const std::string name = "udisk-test-" + std::to_string(::getpid());
  const uid_t self = ::getuid(), mail = 8, nobodyKnows = 4'000'000'000;
  // The thread alone changes who it is, and only when it may change back.
  std::vector<uid_t> users{self};
  if (::geteuid() == 0) users.insert(users.end(), {mail, nobodyKnows});
  for (const uid_t user : users) {
    const passwd* known = user == 0 ? nullptr : ::getpwuid(user);
    const std::string made = (known != nullptr ? known->pw_dir : "/media") + ("/" + name);
    for (int round = 0; round < 2; ++round) {  // what is there already is no failure
      gEntrySize = round == 0 ? 100000 : 0;
      ::syscall(SYS_setreuid, user, -1);
      EXPECT_EQ(ask(100, le(name.size(), 2) + name), le(name.size(), 2) + name);
      ::syscall(SYS_setreuid, self, -1);
      EXPECT_TRUE(fs::is_directory(made)) << made;
      EXPECT_EQ(op.GetLocalMountPoint(), "");
      fs::remove(made);
    }
    fs::create_directory(made);
    EXPECT_TRUE(ask(100, le(name.size(), 2) + name));
    fs::remove(made);
  }
}

// As a host does that gives up its rights once the module is loaded.
TEST_F(DiskTest, TheHomeDirectoryIsKnownWhereThePasswordDatabaseIsOutOfReach) {
  const passwd* mail = ::getpwuid(8);
  if (::geteuid() != 0 || mail == nullptr) GTEST_SKIP() << "only root can change who it is";
  const std::string home = mail->pw_dir, made = base + home + "/USB";
  fs::create_directories(base + home);
  const auto run = [&] {
    if (::setreuid(8, 0) != 0) std::exit(2);
    auto* module = static_cast<ZorDriverModule*>(
        ::dlsym(::dlopen(UDISK_MODULE, RTLD_NOW | RTLD_LOCAL), kDriverModuleSymbol));
    if (::chroot(base.c_str()) != 0) std::exit(2);
    ZorDriver* driver = module->open(&device, "");
    driver->onEvent(requestOf(100, le(3, 2) + "USB"), 0);
    const bool answered = device.waitForSent(3);
    driver->Close(0);
    ::_exit(answered ? 0 : 1);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
  EXPECT_TRUE(fs::is_directory(made));
}

}  // namespace
}  // namespace zor::test
