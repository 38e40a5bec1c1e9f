#include "host/system_call_filter.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <system_error>
#include <vector>

namespace zor::host {
namespace {

#if defined(__x86_64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#else
constexpr std::uint32_t kArchitecture = 0;  // the numbers of others were not reviewed
#endif

// Younger calls are unknown to this list. Before this is raised, those in
// between are to be reviewed.
constexpr std::uint32_t kYoungestCall = SYS_set_mempolicy_home_node;

constexpr std::uint32_t kNeverCalled[] = {
// other programs, and what belongs to other processes
#ifdef SYS_fork
    SYS_fork,
    SYS_vfork,
#endif
    SYS_execve,
    SYS_execveat,
#ifndef UDISK_LEAK_CHECKER
    SYS_ptrace,
#endif
    SYS_process_vm_readv,
    SYS_process_vm_writev,
    SYS_process_madvise,
    SYS_process_mrelease,
    SYS_kcmp,
    SYS_kill,
    SYS_tkill,
    SYS_rt_sigqueueinfo,
    SYS_rt_tgsigqueueinfo,
    SYS_pidfd_open,
    SYS_pidfd_getfd,
    SYS_pidfd_send_signal,
    SYS_setpriority,
    SYS_ioprio_set,
    SYS_sched_setparam,
    SYS_sched_setscheduler,
    SYS_sched_setaffinity,
    SYS_sched_setattr,
    SYS_migrate_pages,
    SYS_move_pages,
    // what is shared by a number or a name that is no file's; the numbers can be guessed
    SYS_shmget,
    SYS_shmat,
    SYS_shmdt,
    SYS_shmctl,
    SYS_semget,
    SYS_semop,
    SYS_semtimedop,
    SYS_semctl,
    SYS_msgget,
    SYS_msgsnd,
    SYS_msgrcv,
    SYS_msgctl,
    SYS_mq_open,
    SYS_mq_unlink,
    SYS_mq_timedsend,
    SYS_mq_timedreceive,
    SYS_mq_notify,
    SYS_mq_getsetattr,
    // ways to files past the served directory, and new ways out
    SYS_name_to_handle_at,
    SYS_open_by_handle_at,
#ifdef SYS_mknod
    SYS_mknod,
#endif
    SYS_mknodat,
    SYS_socket,
    SYS_socketpair,  // of datagrams: without a peer that is fixed
    SYS_connect,
    SYS_bind,
    SYS_listen,
// who uses which files
#ifdef SYS_inotify_init
    SYS_inotify_init,
#endif
    SYS_inotify_init1,
    SYS_inotify_add_watch,
    SYS_fanotify_init,
    SYS_fanotify_mark,
    // mounts and namespaces
    SYS_mount,
    SYS_umount2,
    SYS_pivot_root,
    SYS_chroot,
    SYS_open_tree,
    SYS_move_mount,
    SYS_fsopen,
    SYS_fsconfig,
    SYS_fsmount,
    SYS_fspick,
    SYS_mount_setattr,
    SYS_unshare,
    SYS_setns,
    SYS_swapon,
    SYS_swapoff,
    SYS_quotactl,
    SYS_quotactl_fd,
    SYS_acct,
    // the kernel and the machine
    SYS_init_module,
    SYS_finit_module,
    SYS_delete_module,
    SYS_kexec_load,
#ifdef SYS_kexec_file_load
    SYS_kexec_file_load,
#endif
#ifdef SYS_iopl
    SYS_iopl,
    SYS_ioperm,
    SYS_modify_ldt,
#endif
    SYS_bpf,
    SYS_perf_event_open,
    SYS_userfaultfd,
    SYS_io_uring_setup,
    SYS_io_uring_enter,
    SYS_io_uring_register,
    SYS_add_key,
    SYS_request_key,
    SYS_keyctl,
    SYS_lookup_dcookie,
    SYS_personality,
    SYS_reboot,
    SYS_syslog,
    SYS_settimeofday,
    SYS_clock_settime,
    SYS_clock_adjtime,
    SYS_adjtimex,
    SYS_sethostname,
    SYS_setdomainname,
    SYS_vhangup,
};

// A thread of this process, as the C library makes them.
[[maybe_unused]] constexpr std::uint32_t kThread = CLONE_THREAD | CLONE_SIGHAND | CLONE_VM;

constexpr std::uint32_t kPermission = SECCOMP_RET_ALLOW;
constexpr std::uint32_t refusal(int error) {
  return SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error);
}

// Where a check leads to: to the next one of its call, or to the verdict.
enum class To { kNext, kAllow, kRefuse };

struct Check {
  sock_filter code;
  To ifTrue = To::kNext, ifFalse = To::kNext;  // of a jump
};

sock_filter statement(int code, std::uint32_t value) noexcept {
  return {static_cast<std::uint16_t>(code), 0, 0, value};
}
sock_filter jump(int test, std::uint32_t value) noexcept {
  return statement(BPF_JMP | test | BPF_K, value);
}
sock_filter verdict(std::uint32_t value) noexcept { return statement(BPF_RET | BPF_K, value); }
sock_filter word(std::size_t offset) noexcept {
  return statement(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

// The lower half: the upper one means nothing for an int.
Check argument(std::size_t index) noexcept {
  static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
  return {word(offsetof(seccomp_data, args) + index * sizeof(std::uint64_t))};
}
Check upperHalf(std::size_t index) noexcept {
  return {
      word(offsetof(seccomp_data, args) + index * sizeof(std::uint64_t) + sizeof(std::uint32_t))};
}
Check equals(std::uint32_t value, To ifTrue, To ifFalse) noexcept {
  return {jump(BPF_JEQ, value), ifTrue, ifFalse};
}
[[maybe_unused]] Check masked(std::uint32_t bits) noexcept {
  return {statement(BPF_ALU | BPF_AND | BPF_K, bits)};
}

// Arguments are loaded only for the calls that are filtered by them: the kernel
// keeps the verdict on every other call and does not run the filter for it.
class Filter {
 public:
  Filter() {
    mCode.push_back(word(offsetof(seccomp_data, arch)));
    unless(jump(BPF_JEQ, kArchitecture), refusal(EPERM));
    mCode.push_back(word(offsetof(seccomp_data, nr)));
#ifdef __x86_64__
    constexpr std::uint32_t kX32 = 0x4000'0000;
    when(jump(BPF_JGE, kX32), refusal(EPERM));
#endif
    // The filter runs for these each time, so they come before the long list.
    filterByArguments();
    when(jump(BPF_JGE, kYoungestCall + 1), refusal(ENOSYS));
    for (const std::uint32_t call : kNeverCalled) when(jump(BPF_JEQ, call), refusal(EPERM));
#ifndef UDISK_LEAK_CHECKER
    // Its flags lie in memory that a filter cannot see; the C library falls back
    // to the older call.
    when(jump(BPF_JEQ, SYS_clone3), refusal(ENOSYS));
    filter(SYS_clone, {argument(0), masked(kThread), equals(kThread, To::kAllow, To::kRefuse)});
#endif
    mCode.push_back(verdict(kPermission));
  }

  long install() noexcept {
    sock_fprog program{};
    program.len = static_cast<unsigned short>(mCode.size());
    program.filter = mCode.data();
    return ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &program);
  }

 private:
  void filterByArguments() {
    const auto self = static_cast<std::uint32_t>(::getpid());
    // The abort of this process, and nobody else's.
    filter(SYS_tgkill, {argument(0), equals(self, To::kAllow, To::kRefuse)});
    // The C library's way to the limits of this process; another could be killed by them.
    filter(SYS_prlimit64,
           {argument(0), equals(0, To::kAllow, To::kNext), equals(self, To::kAllow, To::kRefuse)});
    // send() is this with no address.
    filter(SYS_sendto, {upperHalf(4), equals(0, To::kNext, To::kRefuse), argument(4),
                        equals(0, To::kAllow, To::kRefuse)});
    // What the C library asks of an output, and how descriptors wait. Typing into a terminal,
    // the flags of a disk's files and all the drivers' own are not among it.
    filter(SYS_ioctl,
           {argument(1), equals(TCGETS, To::kAllow, To::kNext),
            equals(TIOCGWINSZ, To::kAllow, To::kNext), equals(FIONREAD, To::kAllow, To::kNext),
            equals(FIONBIO, To::kAllow, To::kNext), equals(FIOCLEX, To::kAllow, To::kRefuse)});
    // Signals to others by way of a descriptor.
    filter(SYS_fcntl, {argument(1), equals(F_SETOWN, To::kRefuse, To::kNext),
                       equals(F_SETOWN_EX, To::kRefuse, To::kAllow)});
  }

  void when(sock_filter test, std::uint32_t then) {
    test.jf = 1;
    mCode.insert(mCode.end(), {test, verdict(then)});
  }
  void unless(sock_filter test, std::uint32_t then) {
    test.jt = 1;
    mCode.insert(mCode.end(), {test, verdict(then)});
  }
  // The verdicts stand behind the checks, as no jump reaches far.
  void filter(std::uint32_t call, std::initializer_list<Check> checks) {
    sock_filter isCall = jump(BPF_JEQ, call);
    isCall.jf = static_cast<std::uint8_t>(checks.size() + 2);
    mCode.push_back(isCall);
    std::size_t behind = checks.size();
    const auto distance = [&](To to) {
      return static_cast<std::uint8_t>(to == To::kNext ? 0 : behind + (to == To::kRefuse));
    };
    for (Check check : checks) {
      --behind;
      check.code.jt = distance(check.ifTrue);
      check.code.jf = distance(check.ifFalse);
      mCode.push_back(check.code);
    }
    mCode.insert(mCode.end(), {verdict(kPermission), verdict(refusal(EPERM))});
  }

  std::vector<sock_filter> mCode;
};

}  // namespace

void filterSystemCalls() {
  if (kArchitecture == 0) {
    throw std::system_error(ENOTSUP, std::generic_category(), "this processor");
  }
  const long result = Filter().install();
  if (result == 0) return;
  throw std::system_error(result < 0 ? errno : EBUSY, std::generic_category(), "the kernel");
}

}  // namespace zor::host
