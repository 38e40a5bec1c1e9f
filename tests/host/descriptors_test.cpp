#include "host/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/process.h"
#include "support/unique_fd.h"

namespace zor::host {
namespace {

// What a program is started with: a terminal for everything, and a file besides.
TEST(Descriptors, KeepNothingThatCanBeReadFrom) {
  const UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  char name[64];
  ASSERT_TRUE(::unlockpt(master.get()) == 0 && ::ptsname_r(master.get(), name, sizeof name) == 0);
  const UniqueFd terminal(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_TRUE(terminal);
  const pid_t child = ::fork();
  if (child == 0) {
    for (const int fd : {0, 1, 2, 99}) ::dup2(terminal.get(), fd);
    dropInheritedDescriptors();
    const auto access = [](int fd) { return ::fcntl(fd, F_GETFL) & O_ACCMODE; };
    char byte;
    const bool none = ::read(0, &byte, 1) == 0 && ::fcntl(99, F_GETFD) < 0 &&
                      ::fcntl(terminal.get(), F_GETFD) < 0;
    ::_exit(!none ? 1 : access(1) != O_WRONLY || access(2) != O_WRONLY ? 2 : 0);
  }
  EXPECT_EQ(test::waitFor(child), 0);
}

}  // namespace
}  // namespace zor::host
