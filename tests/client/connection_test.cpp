// Finding out who serves, and whether it serves this client.
#include "client/connection.h"

#include <gmock/gmock.h>
#include <poll.h>

#include <atomic>

#include "support/host_packets.h"
#include "support/temporary_directory.h"

namespace zor::client::test {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

constexpr uid_t kStranger = 65534;

struct ConnectionTest : ::testing::Test {
  /// The error that is returned for a host that refuses `refused` clients before it
  /// announces its disk to one; nothing when it serves the client.
  std::string connect(int refused, std::optional<uid_t> allowed = {}) {
    for (pollfd left{mListener.get(), POLLIN, 0}; ::poll(&left, 1, 0) == 1;) {
      const UniqueFd refusedBefore(::accept(mListener.get(), nullptr, nullptr));
    }
    std::atomic<bool> over{false};
    std::thread host([&] {
      for (int i = 0; i <= refused && !over;) {
        pollfd event{mListener.get(), POLLIN, 0};
        if (::poll(&event, 1, 20) == 0) continue;
        const UniqueFd client(::accept(mListener.get(), nullptr, nullptr));
        if (i++ < refused) continue;
        const std::string announcement = hex(kAnnouncement);
        ::send(client.get(), announcement.data(), announcement.size(), MSG_NOSIGNAL);
        mSent = takeBytes(client.get(), 1);
      }
    });
    auto connection = Connection::open({mPath, {.idleTimeout = 10s}, 0, allowed});
    const std::string error = connection ? "" : connection.error().message;
    if (connection) connection->reset();
    over = true;
    host.join();
    return error;
  }

  TemporaryDirectory mDirectory;
  const std::string mPath = mDirectory / "host";
  UniqueFd mListener = listenAt(mPath);
  std::string mSent;
};

TEST_F(ConnectionTest, TriesAgainWhenAHostIsStillBusyWithTheLastClient) {
  EXPECT_EQ(connect(3), "");
  EXPECT_THAT(connect(1000), HasSubstr("before it announced a disk: it serves as many clients as"));
}

TEST_F(ConnectionTest, SendsNothingToAHostOfSomebodyElse) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can play another user's host";
  // The credentials are those of who listens.
  ASSERT_EQ(::seteuid(kStranger), 0);
  EXPECT_EQ(::listen(mListener.get(), 1), 0);
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_THAT(connect(0), HasSubstr("neither you nor root"));
  EXPECT_THAT(connect(0, 1), HasSubstr("--allow-host-user="));
  EXPECT_EQ(mSent, "");
  EXPECT_EQ(connect(0, kStranger), "");
  EXPECT_THAT(connect(1000, kStranger), HasSubstr("serves only that user"));
  mListener = listenAt(mPath);
  ASSERT_EQ(::chown(mDirectory.path().c_str(), kStranger, kStranger), 0);
  ASSERT_EQ(::chown(mPath.c_str(), kStranger, kStranger), 0);
  ASSERT_EQ(::seteuid(kStranger), 0);
  const std::string rootsHost = connect(0);
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_EQ(rootsHost, "");
}

}  // namespace
}  // namespace zor::client::test
