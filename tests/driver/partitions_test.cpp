// Probing and mounting with the system's tools, and with tools of the test's
// own that stand before them on PATH and note how they are called.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <functional>

#include "disk_fixture.h"
#include "service/command.h"
#include "service/udisk_service.h"

namespace zor::test {
namespace {

using Calls = std::vector<std::vector<std::string>>;

class PartitionsTest : public DiskTest {
 protected:
  PartitionsTest() {
    fs::create_directory(base + "/bin");
    ::setenv("PATH", (base + "/bin:" + mPathBefore).c_str(), 1);
  }
  ~PartitionsTest() override {
    service.TakeDisk(nullptr);
    ::setenv("PATH", mPathBefore.c_str(), 1);
  }

  /// From now on `name` notes its call and runs `script`.
  void fake(const std::string& name, const std::string& script) {
    const std::string file = base + "/bin/" + name;
    put(file,
        "#!/bin/sh\nprintf '%s\\0' " + name + " \"$@\" '\n' >> " + base + "/calls\n" + script);
    fs::permissions(file, fs::perms(0755));
  }
  /// The calls since the last time, each with its program first.
  Calls calls() {
    Calls all(1);
    std::istringstream arguments(contentsOf(base + "/calls"));
    for (std::string argument; std::getline(arguments, argument, '\0');) {
      if (argument == "\n") {
        all.emplace_back();
      } else {
        all.back().push_back(argument);
      }
    }
    fs::remove(base + "/calls");
    all.pop_back();
    return all;
  }
  /// "DEVICE LABEL TYPE\n" for every partition that is listed for `dev`.
  std::string partitions(const std::string& dev) {
    UdiskDevice found;
    EXPECT_EQ(service.GetDeviceLabel(dev.c_str(), &found), 0);
    std::string lines;
    for (std::size_t i = 0; i < found.partCount; ++i) {
      const UDiskInfo& part = found.parts[i];
      lines += std::string(part.devPath) + " " + part.label + " " + part.fsType + "\n";
    }
    std::free(found.parts);
    return lines;
  }
  void list(const std::string& lines) {
    put(base + "/listing", lines);
    fake("blkid", "cat " + base + "/listing");
  }
  static UDiskInfo partition(const std::string& dev, const std::string& label,
                             const std::string& mountPath = "") {
    UDiskInfo info{};
    dev.copy(info.devPath, sizeof info.devPath - 1);
    label.copy(info.label, sizeof info.label - 1);
    mountPath.copy(info.mountPath, sizeof info.mountPath - 1);
    return info;
  }
  /// Hands the service a disk of these partitions, and unmounts it.
  int unmount(const std::vector<UDiskInfo>& parts) {
    auto* copy = static_cast<UDiskInfo*>(std::calloc(parts.size(), sizeof(UDiskInfo)));
    std::copy(parts.begin(), parts.end(), copy);
    service.TakeDisk(new UdiskDevice{static_cast<std::uint8_t>(parts.size()), copy});
    return service.UmountLocal();
  }

  /// Whether the process of which a program printed the number runs: killed ones may not be reaped.
  static bool isRunning(const std::string& printed) {
    const std::string status =
        contentsOf("/proc/" + std::to_string(std::stoi(printed)) + "/status");
    return !status.empty() && status.find("State:\tZ") == status.npos;
  }

  const std::string pid = std::to_string(::getpid());
  UDiskService service{&device, &op};

 private:
  const std::string mPathBefore = std::getenv("PATH");
};

TEST_F(PartitionsTest, AreReadFromTheListing) {
  // Texts are cut at 31 bytes, and at a whole character.
  for (const auto& row : table(R"x(
    LABEL="USB" UUID="12-AB" TYPE="vfat"              | USB vfat;
    UUID="12-AB" LABEL="USB" TYPE="vfat"              | USB vfat;
    UUID="12-AB" TYPE="vfat"                          | 12-AB vfat;
    TYPE="swap"                                       | ;
    LABEL="USB"                                       | ;
    LABEL="MY DISK" TYPE="ntfs"                       | MY ntfs;
    UUID="12" SEC_TYPE="msdos" LABEL="U" TYPE="vfat"  | 12 msdos;
    PARTUUID="p-1" TYPE="v"                           | p-1 v;
    UUID="12-AB" LABEL=USB TYPE="vfat"                | 12-AB vfat;
    UUID="12-AB" LABEL="U TYPE="v"                    | U2-AB v;
    LABEL="$(reboot)&-rf" TYPE="v"                    | $(reboot)&-rf v;
    LABEL="unclosed TYPE="v                           | unclosed v;
    LABEL="123456789012345678901234567890xyz" TYPE="v | 123456789012345678901234567890x v;
    LABEL="123456789012345678901234567890ü" TYPE="v"  | 123456789012345678901234567890 v;)x")) {
    const std::string found = row[1].empty() ? "" : "/dev/sdb1 " + row[1] + "\n";
    list("/dev/sda1: LABEL=\"other\" TYPE=\"v\"\n/dev/sdb1: " + row[0] +
         "\n/dev/sdb2 no colon TYPE=");
    EXPECT_EQ(partitions("/dev/sdb1"), found) << row[0];
  }
  std::string many;
  for (int i = 0; i < 258; ++i) many += "/dev/sdb1: UUID=\"p\" TYPE=\"v\"\n";
  list(many);
  const std::string kept = partitions("sdb1");
  EXPECT_EQ(std::count(kept.begin(), kept.end(), '\n'), 255);
  EXPECT_EQ(log.errors("partition left out"), 3U);
  UdiskDevice untouched;
  EXPECT_EQ(service.GetDeviceLabel("sdb", &untouched), -1);
  ::setenv("PATH", base.c_str(), 1);
  EXPECT_EQ(service.GetDeviceLabel("sdb1", &untouched), -1);
  EXPECT_EQ(log.errors("excute blkid failed"), 1U);
}

TEST_F(PartitionsTest, TheRemovableDiskIsFoundInTheSystemsTables) {
  fake("cat", R"(case "$1" in
    /proc/partitions) printf 'name\n\n 8 0 9 sda\n 8 16 9 sdb\n 8 17 9 sdb1\n 8 32 7 sd\n 8 48 9 sdd\n' ;;
    /sys/block/sdb/removable) echo 1 ;;
    /sys/bus/usb/devices/1-2:1.0/bInterfaceClass) echo 08 ;;
    '/sys/bus/usb/devices/$(id) x:1.0/bInterfaceClass') printf 1234567 ;;
    *) echo 0 ;;
  esac)");
  char name[4] = {}, fixed[] = "sda", mass[] = "1-2", odd[] = "$(id) x";
  EXPECT_EQ(service.GetDevName(name) + service.CheckRemovable(fixed), 0);
  EXPECT_STREQ(name, "sdb");
  EXPECT_EQ(service.GetDeviceClass(mass), 8);
  EXPECT_EQ(service.GetDeviceClass(odd), 123);
}

TEST_F(PartitionsTest, AToolGetsItsTimeItsArgumentsAndThreeDescriptors) {
  EXPECT_FALSE(runCommand({"no-such-program-anywhere"}).started);
  CommandOptions limits;
  limits.timeoutMs = 300;
  const CommandResult hung = runCommand({"sh", "-c", "echo begun; exec sleep 1000"}, limits);
  EXPECT_TRUE(hung.started && !hung.succeeded());
  EXPECT_EQ(hung.output, "begun\n");
  // One that closed its output is waited for no longer, either.
  EXPECT_FALSE(runCommand({"sh", "-c", "exec sleep 1000 > /dev/null"}, limits).succeeded());
  const CommandResult parent = runCommand({"sh", "-c", "sleep 1000 & echo $!; wait"}, limits);
  // Neither is what it started, though somebody else has to reap that.
  for (int i = 0; i < 1000 && isRunning(parent.output); ++i) ::usleep(10'000);
  EXPECT_FALSE(isRunning(parent.output));
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);  // every one was reaped
  limits.timeoutMs = kNoTimeLimit;
  limits.reportMs = 10;
  const CommandResult daemon = runCommand({"sh", "-c", "sleep 0.2; sleep 1000 & echo $!"}, limits);
  EXPECT_TRUE(daemon.succeeded() && isRunning(daemon.output));
  ::kill(std::stoi(daemon.output), SIGKILL);
  EXPECT_GE(log.errors("still waiting for: sh -c sleep 0.2"), 1U);
  limits = {};
  limits.maxOutput = 1000;
  const CommandResult flood = runCommand({"sh", "-c", "yes | head -c 3000000"}, limits);
  EXPECT_TRUE(flood.succeeded() && flood.output.size() == 1000);
  sigset_t blocked, before;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  EXPECT_EQ(runCommand({"grep", "SigBlk", "/proc/self/status"}).output,
            "SigBlk:\t0000000000000000\n");
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  const int inherited = ::dup(0);
  EXPECT_FALSE(runCommand({"readlink", "/proc/self/fd/" + std::to_string(inherited)}).succeeded());
  ::close(inherited);
  EXPECT_EQ(runCommand({"printf", "%s|", "a b", "$(id)", "", "-n"}).output, "a b|$(id)||-n|");
}

TEST_F(PartitionsTest, WithoutAPathNoToolOfTheCurrentDirectoryIsRun) {
  fake("blkid", "");
  const fs::path before = fs::current_path();
  fs::current_path(base + "/bin");
  ::unsetenv("PATH");
  UdiskDevice none;
  service.GetDeviceLabel("sdb1", &none);
  std::free(none.parts);
  fs::current_path(before);
  EXPECT_TRUE(calls().empty());
}

TEST_F(PartitionsTest, NoLabelIsEverInterpreted) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may make a directory below /media";
  fake("mount", "exit $(cat " + base + "/result)");
  fake("umount", "");
  fake("rm", "exec /bin/rm \"$@\"");
  const std::string dev = "/dev/sd" + pid, fits = pid + std::string(24 - pid.size(), 'x');
  for (const std::string& label :
       {"a b;$(id) `id`" + pid, "-rf" + pid, "a,b=c" + pid, "a\nb'\"\\" + pid, fits, fits + "x",
        std::string(".."), std::string("."), "a/b" + pid, std::string()}) {
    // What is no directory name, or none that fits, gives way to the device's.
    const bool plain =
        label.find(pid) != label.npos && label.size() < 25 && label.find('/') == label.npos;
    const std::string directory = "/media/" + (plain ? label : "sd" + pid);
    for (const int result : {0, 32}) {
      put(base + "/result", std::to_string(result));
      UDiskInfo info = partition(dev, label);
      EXPECT_EQ(service.MountLocal(&info), result << 8);
      EXPECT_EQ(info.mountPath, directory);
      EXPECT_EQ(unmount({info}), 0);
      Calls expected{{"umount", directory},
                     {"mount", dev, directory, "-o", "dmask=0000", "-o", "fmask=0000", "-o",
                      "iocharset=utf8"}};
      if (result == 0) expected.push_back({"umount", "-l", directory});
      expected.push_back(
          {"rm", "-rf", "--one-file-system", "--preserve-root=all", "--", directory});
      EXPECT_EQ(calls(), expected);
      EXPECT_FALSE(fs::exists(directory));
    }
  }
  EXPECT_EQ(log.errors("udisk mount errno: "), 10U);
  for (const char* bad : {"", "sdb1", "-o", "/", "/dev/"}) {
    UDiskInfo info = partition(bad, "..");
    EXPECT_EQ(service.MountLocal(&info), -1) << bad;
  }
  EXPECT_TRUE(calls().empty());
}

TEST_F(PartitionsTest, OnlyWhatIsFreeIsMountedOnAndOnlyWhatWasMadeIsRemoved) {
  EXPECT_EQ(service.UmountLocal(), -1);  // there is no disk
  EXPECT_EQ(op.GetLocalMountPoint(), disk);
  if (::geteuid() != 0) GTEST_SKIP() << "only root may make a directory below /media";
  const std::string label = "/media/ud" + pid, named = "/media/sd" + pid;
  const auto absent = [] {};
  const auto empty = [&] { fs::create_directory(label); };
  const auto full = [&] { put((empty(), label + "/precious"), "data"); };
  const auto anothers = [&] { EXPECT_EQ((empty(), ::chown(label.c_str(), 65534, 0)), 0); };
  const auto file = [&] { put(label, "data"); };
  const auto link = [&] { fs::create_directory_symlink(outside + "/empty", label); };
  const auto mounted = [&] {
    EXPECT_EQ((empty(), ::mount("tmpfs", label.c_str(), "tmpfs", 0, nullptr)), 0);
  };
  fake("mount", "");
  const struct {
    std::function<void()> before;
    bool used;
    std::function<void()> meanwhile;
    bool kept;
  } rows[] = {{absent, true, absent, false},  {empty, true, absent, true},
              {full, false, absent, true},    {anothers, false, absent, true},
              {file, false, absent, true},    {link, false, absent, true},
              {mounted, false, absent, true}, {absent, true, full, true},
              {absent, true, mounted, true},  {absent, true, [&] { fs::remove(label); }, false}};
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    const auto& row = rows[i];
    log.clear();
    row.before();
    UDiskInfo info = partition("/dev/sd" + pid, "ud" + pid);
    EXPECT_EQ(service.MountLocal(&info), 0) << i;
    EXPECT_EQ(info.mountPath, row.used ? label : named) << i;
    row.meanwhile();
    const bool mountedHere =
        lstatOf(fs::exists(label) ? label : "/media").st_dev != lstatOf("/media").st_dev;
    EXPECT_EQ(unmount({info}), 0);
    EXPECT_EQ(fs::exists(fs::symlink_status(label)), row.kept) << i;
    EXPECT_FALSE(fs::exists(named)) << i;
    EXPECT_EQ(mountedHere, ::umount2(label.c_str(), 0) == 0) << i;
    EXPECT_TRUE(!fs::exists(label + "/precious") || contentsOf(label + "/precious") == "data");
    EXPECT_EQ(log.errors("still mounted"), 0U) << i;
    fs::remove_all(label);
  }
  EXPECT_EQ(op.GetLocalMountPoint(), "");
  fs::create_directories(label + "/precious");
  fs::create_directories(named + "/precious");
  UDiskInfo info = partition("/dev/sd" + pid, "ud" + pid);
  EXPECT_EQ(service.MountLocal(&info), -1);
  EXPECT_TRUE(fs::exists(label + "/precious") && fs::exists(named + "/precious"));
  for (const std::string& directory : {label, named}) fs::remove_all(directory);
}

TEST_F(PartitionsTest, ARealDiskIsProbedMountedServedAndUnmounted) {
  const std::string image = base + "/image", label = "U \xc3\xbc$(id)" + pid;
  put(image, "");
  fs::resize_file(image, 16 << 20);
  CommandOptions quiet;
  quiet.errors = ErrorOutput::kDropped;
  if (!runCommand({"mkntfs", "-F", "-q", "-L", label, image}, quiet).succeeded()) {
    GTEST_SKIP() << "mkntfs is not installed";
  }
  std::string loop = runCommand({"losetup", "-f", "--show", image}, quiet).output;
  if (loop.empty()) GTEST_SKIP() << "there is no loop device";
  loop.pop_back();
  // The listing's pieces end at blanks.
  EXPECT_NE(partitions(loop).find(loop + " U ntfs\n"), std::string::npos);
  UDiskInfo info = partition(loop, label);
  if (service.MountLocal(&info) == 0) {
    op.SetRootPath(std::string("/media/").data(), std::string(label).data());
    converse(R"(
      103 04000000 00000000 a4010000 00000000 '/a/n' | 04000000 00000000 a4010000 ..000000 '/a/n';
      106 0000000000000000 03000000 00000000 01000000 0400 0000 '/a/n' 'abc' |
          0000000000000000 03000000 00000000 01000000 0400 0000 '/a/n';
      118 00000000 0400 0200 '/a/n' '/m' | =;)");
    EXPECT_EQ(contentsOf("/media/" + label + "/m"), "abc");
    EXPECT_EQ(unmount({info}), 0);
    EXPECT_FALSE(fs::exists(info.mountPath));
  }
  runCommand({"losetup", "-d", loop});
  if (log.errors("udisk mount errno: ") > 0) GTEST_SKIP() << "the image cannot be mounted here";
}

}  // namespace
}  // namespace zor::test
