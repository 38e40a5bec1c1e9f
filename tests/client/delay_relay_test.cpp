#include "support/delay_relay.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace std::chrono_literals;

TEST(DelayRelay, DelaysBytesAndTheirEndAndCutsAtOnce) {
  int fd[4];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, &fd[0]), 0);
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, &fd[2]), 0);
  const zor::UniqueFd near(fd[0]), far(fd[3]);
  zor::test::DelayRelay relay(20ms);
  relay.add({zor::UniqueFd(::dup(fd[1])), zor::UniqueFd(fd[1])},
            {zor::UniqueFd(::dup(fd[2])), zor::UniqueFd(fd[2])});
  const auto start = std::chrono::steady_clock::now();
  char got[4] = "";
  ASSERT_EQ(::send(near.get(), "abc", 3, MSG_NOSIGNAL), 3);
  ::shutdown(near.get(), SHUT_WR);
  EXPECT_EQ(::recv(far.get(), got, 3, MSG_WAITALL), 3);
  EXPECT_STREQ(got, "abc");
  EXPECT_EQ(::recv(far.get(), got, 1, 0), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  relay.cut();
  EXPECT_EQ(::recv(near.get(), got, 1, 0), 0);
}
