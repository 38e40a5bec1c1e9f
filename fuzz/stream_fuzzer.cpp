// What a remote sends, as one stream, to a connection of the host with the
// driver module loaded.
#include <sys/socket.h>

#include "client/packet.h"
#include "fuzzed_disk.h"
#include "host/client_connection.h"
#include "host/device_parameters.h"

namespace zor::fuzz {

// The disk speaks first, and all that it says are whole packets.
static void checkReplies(int socket, std::string_view stream) {
  client::PacketReader reader;
  int count = 0;
  const auto check = [&](const PacketHeader& header, const client::Buffer& payload) {
    EXPECT_TRUE(count++ >= 2 || header.cmd == (count == 1 ? 122 : 100));
    EXPECT_EQ(header.devId, host::HostDevice::kDeviceId);
    FuzzedDisk::checkSecret(view(payload.data(), payload.size()), stream);
  };
  for (ssize_t got = 1; got > 0;) {
    const auto room = reader.room();
    got = ::readv(socket, room.data(), static_cast<int>(room.size()));
    EXPECT_TRUE(got <= 0 || reader.consume(static_cast<std::size_t>(got), check).ok());
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzedDisk disk;
  static const host::DriverModule module(FUZZ_MODULE, "udisk-redir");
  const std::string_view stream = view(data, size);
  // A mount request makes a directory below /media: only one of our own will do.
  if (!kIsolated && stream.find('\x64') != stream.npos) return 0;
  disk.restore();
  std::array<int, 2> ends{};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const UniqueFd remote(ends[0]);
  {
    const auto params = toJson(host::makeParameters(disk.disk, "", false));
    host::ServedDirectory served(disk.disk);
    host::SharedBudget budget;
    host::ClientConnection connection(UniqueFd(ends[1]), {::getpid(), ::geteuid()}, module, served,
                                std::make_shared<host::HostDevBase>(params, nullptr, nullptr),
                                budget);
    // The socket has room for all of an input.
    EXPECT_EQ(::send(remote.get(), data, size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
    ::shutdown(remote.get(), SHUT_WR);
    connection.start([] {});
    checkReplies(remote.get(), stream);
  }
  disk.checkOutside();
  return 0;
}

}  // namespace zor::fuzz
