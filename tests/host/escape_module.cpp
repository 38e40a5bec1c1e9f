// A module that was taken over by its remote: it tries what it has no business
// to do, on a thread of the host, and tells what was stopped. ESCAPE names a
// directory with the file "kept" and the served "disk" in it.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>

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

const std::pair<const char*, long (*)()> kAttempts[] = {
    {"write inside", [] { return long{::open(disk.c_str(), O_CREAT | O_RDWR, 0600)}; }},
    {"move inside", [] { return long{::rename(disk.c_str(), moved.c_str())}; }},
    {"read", [] { return long{::open(kept.c_str(), O_RDONLY)}; }},
    {"cut", [] { return long{::truncate(kept.c_str(), 0)}; }},
    {"program", [] { return ::system("true") == 0 ? 0L : (errno = EPERM, -1L); }},
    {"trace", [] { return ::ptrace(PTRACE_SEIZE, ::getppid(), nullptr, nullptr); }},
    {"signal", [] { return ::syscall(SYS_tgkill, ::getppid(), ::getppid(), 0); }},
    {"network", [] { return long{::socket(AF_INET, SOCK_STREAM, 0)}; }},
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
