// What a host has given up before it serves.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include "host_process.h"
#include "support/unique_fd.h"

namespace host_test {
namespace {

namespace fs = std::filesystem;

class SandboxTest : public HostTest {
 protected:
  void SetUp() override {
    if (::syscall(SYS_landlock_create_ruleset, nullptr, 0, 1) < 3) GTEST_SKIP() << "no Landlock";
  }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(mDirectory + "/" + name) << text;
    fs::permissions(mDirectory + "/" + name, fs::perms(0700));
  }
};

TEST_F(SandboxTest, AModuleThatWasTakenOverStaysInTheDisk) {
  ::setenv("ESCAPE", mDirectory.c_str(), 1);
  const zor::UniqueFd mail(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{AF_UNIX, {}};
  (mDirectory + "/mail").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(mail.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const int queue = ::msgget(IPC_PRIVATE, 0600);
  msgbuf message{1, {'x'}};
  ASSERT_EQ(::msgsnd(queue, &message, 1, 0), 0);
  ::setenv("ESCAPE_QUEUE", std::to_string(queue).c_str(), 1);
  fs::create_directories(mDirectory + "/disk/sub");
  for (const auto& [option, inside, outside] :  // what is possible
       {std::tuple{"--sandbox=required", 3, 0}, {"--read-only", 1, 0}, {"--sandbox=off", 3, 15}}) {
    for (const char* name : {"disk/f", "kept"}) write(name, "canary");
    serve({option, "--module", HOST_MODULES "escape_module.so"});
    EXPECT_TRUE(Remote(mSocket).closedByHost());
    EXPECT_TRUE(logs("escape ", 18));
    EXPECT_TRUE(logs("inside: possible", inside));
    EXPECT_EQ(logged("possible"), inside + outside);
    EXPECT_EQ(logged("confined to"), outside == 0);
    ::kill(mPid, SIGTERM);
    EXPECT_EQ(exitCode(), 0);
    if (!HasFailure()) fs::remove(mLog);
  }
  EXPECT_EQ(::recv(mail.get(), message.mtext, 1, MSG_DONTWAIT), 1);  // where it was possible
  EXPECT_EQ(::recv(mail.get(), message.mtext, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(::msgrcv(queue, &message, 1, 0, IPC_NOWAIT), -1);
  ::msgctl(queue, IPC_RMID, nullptr);
}

// A kernel without Landlock, for this thread and the programs that it starts.
void forgetLandlock() {
  sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_landlock_create_ruleset, 0, 1),
                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program{4, code};
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  EXPECT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

TEST_F(SandboxTest, SaysWhatTheKernelLacksAndServesOnlyIfThatIsAllowed) {
  std::thread([this] {
    forgetLandlock();
    launch({"serve", mDirectory + "/disk", "--socket", mSocket, "--sandbox=required"});
    EXPECT_EQ(exitCode(), 1);
    EXPECT_EQ(logged("without: Landlock (the kernel: Function not implemented)"), 1);
    EXPECT_FALSE(fs::exists(mSocket));
    serve();
    EXPECT_TRUE(Remote(mSocket).greeted());
    EXPECT_EQ(logged("confined in part"), 1);
  }).join();
}

}  // namespace
}  // namespace host_test
