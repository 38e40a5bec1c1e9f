// The durable link against a host that the test plays itself.
#include "client/durable_link.h"

#include <gmock/gmock.h>
#include <poll.h>

#include "support/host_packets.h"
#include "support/temporary_directory.h"

namespace zor::client::test {
namespace {

using namespace std::chrono_literals;
using wire::Command;
using Clock = std::chrono::steady_clock;
using namespace ::testing;

/// What a host reports of its disk.
struct DiskReport {
  char device = 1, inode = 2, fileSystem = 3, blocks = 4;
  bool readable = true, reportsSizes = true;

  std::string attributes() const {
    return hex("01 00 78 00 '/'") +
           hex(kStatBytes).replace(0, 1, 1, device).replace(8, 1, 1, inode);
  }
  std::string sizes() const {
    std::string record(112, '\0');
    if (readable) record[1] = 16, record[16] = blocks, record[64] = fileSystem;
    return hex("01 00 00 00  70 00 00 00 '/'") + record;
  }
};

struct DurableLinkTest : Test {
  /// Up to the query of the sizes.
  Packet announce(const std::string& name = "USB") {
    mHost.reset();
    mHost = UniqueFd(::accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const timeval limit{2, 0};
    ::setsockopt(mHost.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    send(hex(kNotice) + hex(kAnnouncement).replace(18, 3, name));
    return take(), take();
  }

  void send(const std::string& bytes) { sendBytes(mHost.get(), bytes); }
  Packet take() { return takePacket(mHost.get()); }

  void greet(const DiskReport& disk = {}) {
    const Packet sizes = announce();
    const Packet root = take();
    // Waiting requests are sent only when both are known.
    pollfd early{mHost.get(), POLLIN, 0};
    if (disk.reportsSizes) send(reply(sizes, disk.sizes()));
    EXPECT_EQ(::poll(&early, 1, 20), 0);
    send(reply(root, disk.attributes()));
  }

  void open(std::chrono::milliseconds timeout, const DiskReport& disk = {}) {
    mListener = listenAt(mPath);
    auto host = std::async(std::launch::async, [this, disk] { greet(disk); });
    const auto keep = [this](const std::string& clause) { mReports.push_back(clause); };
    auto link = DurableLink::open({{mPath, {}}, timeout, keep});
    if (link) mLink = std::move(*link);
  }

  void killHost() {
    mListener.reset();
    mHost.reset();
  }

  Outcome submit(Command command, const std::string& data = "") {
    auto promise = std::make_shared<std::promise<std::string>>();
    mLink->submit({command, Buffer(std::string_view("p")), shared(Buffer(std::string_view(data)))},
                  completing(promise));
    return promise->get_future();
  }

  TemporaryDirectory mDirectory;
  const std::string mPath = mDirectory / "host";
  UniqueFd mListener;
  UniqueFd mHost;
  std::vector<std::string> mReports;  ///< may be read once the link is gone
  std::unique_ptr<DurableLink> mLink;
};

TEST_F(DurableLinkTest, SendsAgainInOrderWhatWasNotAnsweredAndMayBeRepeated) {
  open(20s);
  Outcome write = submit(Command::kFileWrite, "1");
  Outcome rename = submit(Command::kSetRename);
  auto check = std::make_shared<std::promise<std::string>>();
  mLink->submitFenced({Command::kCheckDir, Buffer(std::string_view("p2"))}, completing(check),
                      {Command::kFileFlush, {}, {}});
  for (const int command : {106, 118, 121, 119}) EXPECT_EQ(take().cmd, command);
  killHost();
  EXPECT_EQ(settled(rename), "error: the host closed the connection");
  Outcome unlink = submit(Command::kSetUnlink, "3");
  mListener = listenAt(mPath);
  greet();
  std::string order;
  for (int i = 0; i < 4; ++i) {
    const Packet packet = take();
    order += std::to_string(packet.cmd) + packet.bytes.substr(16) + ' ';
    if (packet.cmd != 121) send(reply(packet, "done"));
  }
  EXPECT_EQ(order, "106p1 121p2 119 117p3 ");
  for (Outcome* outcome : {&write, &unlink}) EXPECT_EQ(settled(*outcome), "done");
  EXPECT_THAT(check->get_future().get(), HasSubstr("passed over"));
  EXPECT_THAT(describe(mLink->metrics().snapshot()),
              AllOf(HasSubstr("write: 1 requests, 4 bytes sent, 4 bytes received, 1 sent again\n"),
                    HasSubstr("\ntotal: 4 requests, 11 bytes sent, 8 bytes received, 2 sent again\n"
                              "round trips: 2\nreconnects: 1\n")));
}

TEST_F(DurableLinkTest, WaitsNoLongerThanItMayAndRecovers) {
  const std::function<void(Outcome&)> kLosses[] = {
      [this](Outcome&) { killHost(); },
      [this](Outcome&) { mHost.reset(); },  // nobody announces
      [this](Outcome&) {                    // nor accepts
        while (connectUnix(mPath, 0ms).ok()) mHost.reset();
      },
      [](Outcome&) {},            // silence
      [this](Outcome& outcome) {  // the request ends each host
        do greet();
        while (take().cmd != 0 && outcome.wait_for(0s) != std::future_status::ready);
      },
  };
  for (const auto& lose : kLosses) {
    open(400ms);
    const auto begin = Clock::now();
    Outcome waiting = submit(Command::kFileRead);
    take();
    lose(waiting);
    EXPECT_THAT(settled(waiting), HasSubstr("error: "));
    EXPECT_THAT(Clock::now() - begin, AllOf(Ge(300ms), Lt(5s)));
    killHost();
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(submit(Command::kFileWrite).wait_for(300ms), std::future_status::ready);
    mListener = listenAt(mPath);
    greet();
    Outcome fresh = submit(Command::kFileRead);
    while (fresh.wait_for(50ms) == std::future_status::ready) fresh = submit(Command::kFileRead);
    send(reply(take(), "back"));
    EXPECT_EQ(settled(fresh), "back");
    mLink.reset();
    killHost();
  }
}

TEST_F(DurableLinkTest, SendsNothingToAnotherDisk) {
  open(20s);
  Outcome write = submit(Command::kFileWrite, "mine");
  announce("CAM");
  EXPECT_EQ(take().cmd, 0);
  for (const DiskReport& other :
       {DiskReport{.inode = 9}, DiskReport{.fileSystem = 9}, DiskReport{.fileSystem = 0},
        DiskReport{.blocks = 9}, DiskReport{.readable = false}}) {
    greet(other);
    EXPECT_EQ(take().cmd, 0);
  }
  send(reply(announce(), DiskReport().sizes()));
  send(reply(take(), hex("01 00 00 00 '/'")));
  EXPECT_EQ(take().cmd, 0);
  greet({.device = 9});  // as after it was plugged in somewhere else
  const Packet packet = take();
  send(reply(packet, packet.bytes.substr(16)));
  EXPECT_EQ(settled(write), "pmine");
  mLink.reset();
  EXPECT_THAT(mReports, ElementsAre(HasSubstr("is lost"), "another disk is served there now",
                                    HasSubstr("cannot be read"), HasSubstr("again")));
}

TEST_F(DurableLinkTest, DistinguishesFileSystemsWithoutAnIdByTheirDevice) {
  open(20s, {.fileSystem = 0});
  Outcome write = submit(Command::kFileWrite, "mine");
  greet({.device = 9, .fileSystem = 0});
  EXPECT_EQ(take().cmd, 0);
  greet({.fileSystem = 0});
  const Packet packet = take();
  send(reply(packet, packet.bytes.substr(16)));
  EXPECT_EQ(settled(write), "pmine");
}

TEST_F(DurableLinkTest, UsesADiskWhoseSizesTheHostNeverReports) {
  for (const DiskReport& silent : {DiskReport{.reportsSizes = false}, {.readable = false}}) {
    open(20s, silent);
    ASSERT_NE(mLink, nullptr);
    Outcome write = submit(Command::kFileWrite, "mine");
    greet({.inode = 9, .reportsSizes = false});
    EXPECT_EQ(take().cmd, 0);
    greet(silent);
    EXPECT_EQ(take().cmd, 106);
    greet();  // from now on, this is the disk
    EXPECT_EQ(take().cmd, 106);
    greet({.fileSystem = 9});
    EXPECT_EQ(take().cmd, 0);
    greet();
    send(reply(take(), "done"));
    EXPECT_EQ(settled(write), "done");
    mLink.reset();
    EXPECT_THAT(mReports.front(), HasSubstr("does not identify its disk"));
    EXPECT_EQ(std::count(mReports.begin(), mReports.end(), mReports.front()), 1);
    mReports.clear();
    killHost();
  }
}

TEST_F(DurableLinkTest, EndsPromptlyInEveryStateAndLeavesNothingWithoutAnOutcome) {
  const std::function<void()> kStates[] = {
      [] {},                                  // serving
      [this] { killHost(); },                 // pausing
      [this] { mHost.reset(); },              // waiting for an announcement
      [this] { mHost.reset(), announce(); },  // waiting for the identity
  };
  for (int i = 0; i < 8; ++i) {
    const bool givenUp = i >= 4;
    open(20s);
    Outcome waiting = submit(Command::kFileRead);
    kStates[i % 4]();
    if (givenUp) mLink->giveUp();
    std::promise<void> posted;
    mLink->post([&] { posted.set_value(); });
    EXPECT_EQ(posted.get_future().wait_for(10s), std::future_status::ready);
    const auto begin = Clock::now();
    if (givenUp) {
      EXPECT_THAT(settled(waiting), HasSubstr("closed on this side"));
      waiting = submit(Command::kFileWrite);
      EXPECT_THAT(settled(waiting), HasSubstr("closed on this side"));
      waiting = submit(Command::kFileWrite);
    }
    mLink.reset();
    EXPECT_LT(Clock::now() - begin, 2s);
    EXPECT_THAT(settled(waiting), HasSubstr("closed on this side"));
    killHost();
  }
}

}  // namespace
}  // namespace zor::client::test
