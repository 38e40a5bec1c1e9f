// A module that was taken over by its remote: it tries what it has no business
// to do, on a thread of the host, and tells what was stopped. ESCAPE names a
// directory with the file "kept", the datagram socket "mail" and the served
// "disk" in it, ESCAPE_QUEUE a queue with a message.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/msg.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "zor_driver.h"

namespace {

const std::string base = std::getenv("ESCAPE"), disk = base + "/disk/f",
                  moved = base + "/disk/sub/f", kept = base + "/kept";

int ends[2] = {-1, -1}, flags = 0;

long sendOutside() {
  sockaddr_un address{AF_UNIX, {}};
  (base + "/mail").copy(address.sun_path, sizeof address.sun_path - 1);
  return ::sendto(ends[0], "x", 1, 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
}

long receiveOutside() {
  msgbuf message{};
  return ::msgrcv(std::atoi(std::getenv("ESCAPE_QUEUE")), &message, 1, 0, IPC_NOWAIT);
}

const std::pair<const char*, long (*)()> kAttempts[] = {
    {"write inside", [] { return long{::open(disk.c_str(), O_CREAT | O_RDWR, 0600)}; }},
    {"move inside", [] { return long{::rename(disk.c_str(), moved.c_str())}; }},
    {"limit inside", [] { return ::syscall(SYS_prlimit64, 0, RLIMIT_CPU, nullptr, nullptr); }},
    {"read", [] { return long{::open(kept.c_str(), O_RDONLY)}; }},
    {"cut", [] { return long{::truncate(kept.c_str(), 0)}; }},
    {"program", [] { return ::system("true") == 0 ? 0L : (errno = EPERM, -1L); }},
    {"trace", [] { return ::ptrace(PTRACE_SEIZE, ::getppid(), nullptr, nullptr); }},
    {"signal", [] { return ::syscall(SYS_tgkill, ::getppid(), ::getppid(), 0); }},
    {"network", [] { return long{::socket(AF_INET, SOCK_STREAM, 0)}; }},
    {"pair", [] { return long{::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends)}; }},
    {"datagram", sendOutside},
    {"queue", receiveOutside},
    {"watch",
     [] { return long{::inotify_add_watch(::inotify_init1(0), base.c_str(), IN_CREATE)}; }},
    {"limit", [] { return ::syscall(SYS_prlimit64, ::getppid(), RLIMIT_CPU, nullptr, nullptr); }},
    {"priority",
     [] {
       return ::syscall(SYS_setpriority, PRIO_PROCESS, ::getppid(), ::getpriority(PRIO_PROCESS, 0));
     }},
    {"owner", [] { return long{::fcntl(STDERR_FILENO, F_SETOWN, ::getppid())}; }},
    {"flags", [] { return long{::ioctl(ends[1], FS_IOC_GETFLAGS, &flags)}; }},
    {"terminal", [] { return long{::ioctl(STDERR_FILENO, TIOCSTI, "x")}; }},
};

zor::ZorDriver* openEscape(zor::ZorDevice*, const std::string&) {
  for (const auto& [name, attempt] : kAttempts) {
    const bool possible = attempt() >= 0 || (errno != EPERM && errno != EACCES);
    std::fprintf(stderr, "escape %s: %s\n", name, possible ? "possible" : "stopped");
  }
  return nullptr;
}

}  // namespace

extern "C" {
extern const zor::ZorDriverModule ZOR_DRV_MODULE;
const zor::ZorDriverModule ZOR_DRV_MODULE = {openEscape, 0, {2, 0xffff, 0xffff, 0}, "udisk-redir"};
}
