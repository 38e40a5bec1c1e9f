#include "disk_rig.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <utility>

#include "support/process.h"
#include "support/unique_fd.h"

namespace zor::soak {
namespace {

using test::eventually;
using test::spawn;
using test::waitFor;

std::string contents(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

bool run(const test::Arguments& arguments) {
  return waitFor(spawn(arguments, "/dev/null", "/dev/null")) == 0;
}

std::string figuresOf(pid_t pid) {
  const fs::path process = "/proc/" + std::to_string(pid);
  const std::string status = contents(process / "status");
  std::string text;
  for (const std::string key : {"VmRSS:", "VmHWM:", "Threads:"}) {
    const std::size_t at = status.find(key);
    if (at != std::string::npos) text += status.substr(at, status.find('\n', at) - at) + "  ";
  }
  for (std::size_t tab; (tab = text.find('\t')) != std::string::npos;) text[tab] = ' ';
  const auto open = std::distance(fs::directory_iterator(process / "fd"), {});
  return text + "descriptors: " + std::to_string(open);
}

bool makeOwnDisk(const fs::path& base) {
  constexpr off_t kSize = off_t{192} << 20;
  const std::string image = base / "image";
  const UniqueFd file(::open(image.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  return ::geteuid() == 0 && ::ftruncate(file.get(), kSize) == 0 &&
         run({"mkfs.ext4", "-q", "-m", "0", image}) &&
         run({"mount", "-o", "loop", image, base / "disk"});
}

}  // namespace

ServedPart::ServedPart(std::string program, fs::path directory, const fs::path& beside)
    : mProgram(std::move(program)),
      mDirectory(std::move(directory)),
      mBeside(beside),
      mRelay(socket(), hostSocket(), std::chrono::nanoseconds(0)) {
  const std::string commands = mBeside + ".commands";
  const std::string answers = mBeside + ".answers";
  ::mkfifo(commands.c_str(), 0600);
  ::mkfifo(answers.c_str(), 0600);
  mShell = spawn({"sh", "-c",
                  "exec <$0.commands >$0.answers; while read -r command; do case $command in "
                  "start) \"$@\" 2>$0.log >/dev/null </dev/null & echo $!;; "
                  "wait) wait $!; echo $?;; esac; done",
                  mBeside, mProgram, "serve", mDirectory, "--socket", hostSocket()},
                 "/dev/null", "/dev/null");
  mCommands.open(commands);
  mAnswers.open(answers);
  start();
}

ServedPart::~ServedPart() {
  signal(SIGKILL);
  ::kill(mShell, SIGKILL);
  waitFor(mShell);
}

int ServedPart::ask(const char* command) {
  int answer = -1;
  mCommands << command << std::endl;
  mAnswers >> answer;
  return answer;
}

void ServedPart::start() {
  const std::string log = mBeside + ".log";
  std::error_code ignored;
  fs::remove(log, ignored);
  mHost = ask("start");
  const auto serving = [&] { return contents(log).find("serving") != std::string::npos; };
  if (!eventually(serving)) throw Difference("a host does not start: " + contents(log));
}

void ServedPart::stop(int number) {
  if (mHost <= 0) return;
  signal(number);
  mHost = -1;
  const int code = ask("wait");
  const int expected = number == SIGKILL ? 128 + SIGKILL : 0;
  if (code == expected) return;
  throw Difference("a host ended with " + std::to_string(code) + " on signal " +
                   std::to_string(number) + ": " + contents(mBeside + ".log"));
}

void ServedPart::signal(int number) const {
  if (mHost > 0) ::kill(mHost, number);
}

std::string ServedPart::figures() const { return figuresOf(mHost); }

DiskRig::DiskRig(const fs::path& programs)
    : mBase(makeBase()),
      mOwnDisk(makeOwnDisk(mBase)),
      libraryPart(programs / "udisk-host", makePart("library"), mBase / "library-host"),
      drivePart(programs / "udisk-host", makePart("drive"), mBase / "drive-host") {
  mountDrive(programs / "udisk-mount");
}

DiskRig::~DiskRig() {
  if (mMount > 0) unmount();
  drivePart.stop(SIGKILL);
  libraryPart.stop(SIGKILL);
  if (mOwnDisk && ::umount2(disk().c_str(), 0) != 0) return;
  std::error_code ignored;
  fs::remove_all(mBase, ignored);
}

fs::path DiskRig::makeBase() const {
  std::string name = fs::temp_directory_path() / "soak.XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
  fs::create_directory(fs::path(name) / "disk");
  fs::create_directory(fs::path(name) / "drive");
  return name;
}

fs::path DiskRig::makePart(const std::string& name) {
  fs::create_directory(disk() / name);
  return disk() / name;
}

void DiskRig::mountDrive(const std::string& program) {
  mMount = spawn({program, "-f", "-o", "quiet", drivePart.socket(), drive()}, "/dev/null",
                 beside("mount.log"));
  struct stat below {};
  ::stat(mBase.c_str(), &below);
  const auto mounted = [&] {
    struct stat now {};
    return ::stat(drive().c_str(), &now) == 0 && now.st_dev != below.st_dev;
  };
  if (!eventually(mounted)) throw Difference("no mount: " + contents(beside("mount.log")));
}

bool DiskRig::fill() const {
  struct statvfs space {};
  const std::string path = disk() / "filling";
  const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  // Others take and give back space meanwhile.
  for (int i = 0; i < 20 && ::fstatvfs(file.get(), &space) == 0; ++i) {
    const auto left = static_cast<off_t>(space.f_bavail * space.f_frsize);
    struct stat status {};
    if (::fstat(file.get(), &status) != 0 || left == 0) break;
    (void)::posix_fallocate(file.get(), status.st_size, left > 65536 ? left - 65536 : left);
  }
  return true;
}

bool DiskRig::remount(bool readOnly) const {
  // Not while a host has a file open for writing; that takes but a moment.
  unsigned long flags = MS_REMOUNT;
  if (readOnly) flags |= MS_RDONLY;
  return eventually([&] { return ::mount(nullptr, disk().c_str(), nullptr, flags, nullptr) == 0; });
}

void DiskRig::relieve() const {
  if (!remount(false)) throw Difference("the disk stays read-only");
  std::error_code ignored;
  fs::remove(disk() / "filling", ignored);
}

void DiskRig::signalMount(int number) const { ::kill(mMount, number); }

void DiskRig::abandon() const {
  signalMount(SIGKILL);
  libraryPart.signal(SIGKILL);
  drivePart.signal(SIGKILL);
  ::umount2(drive().c_str(), MNT_DETACH);
}

int DiskRig::unmount() {
  signalMount(SIGTERM);
  return waitFor(std::exchange(mMount, -1));
}

std::string DiskRig::mountWords() const { return contents(beside("mount.log")); }

std::string DiskRig::mountFigures() const { return figuresOf(mMount); }

}  // namespace zor::soak
