// What changes files and names, compared with the platform's own calls.
#include "disk_fixture.h"
#include "zor_request_source.h"

namespace zor::test {
namespace {

TEST_F(DiskTest, PathsMeanWhatTheyMeanToTheSystem) {
  const std::string twin = base + "/twin", twinSpare = twin + "/spare", target = twin + "/target";
  const auto platformCall = [&](const Probe& probe, const std::string& path) {
    const char *p = path.c_str(), *spare = twinSpare.c_str(), *t = target.c_str();
    const bool from = probe.kind == Probe::kFile;
    if (probe.cmd == 109) return ::truncate(p, 3);
    if (probe.cmd == 111) return ::chmod(p, 0600);
    if (probe.cmd == 115) return ::rmdir(p);
    if (probe.cmd == 116) return from ? ::link(p, t) : ::link(spare, p);
    if (probe.cmd == 117) return ::unlink(p);
    return from ? ::rename(p, t) : ::rename(spare, p);
  };
  for (const Probe& probe : kProbes) {
    if (probe.cmd != 109 && probe.cmd != 111 && (probe.cmd < 115 || probe.cmd > 118)) continue;
    std::istringstream paths(
        "/ /. // /inside.txt /inside.txt/ /inside.txt/. /inside.txt/x /empty /empty/ /empty/. "
        "/empty/.. /sub /sub/ /sub/deep/ /sub/../spare //spare /new /new/ /new/x /new/x/ "
        "/a\\b/c\\d "
        "/in /in/ /in/. /in-file /in-file/ /in-empty /in-empty/ /in-empty/new");
    for (std::string path; paths >> path;) {
      for (const bool walk : {false, true}) {
        if (walk && path.find("/in") == 0 && path.find("/ins") != 0) continue;  // follows no link
        DiskRoot::forceComponentWalk(walk);
        fs::remove_all(twin);
        layOut();
        fs::rename(disk, twin);
        layOut();
        announce();
        const bool failed = platformCall(probe, twin + path) != 0;
        const std::string what = std::string(probe.name) + " '" + path + "'";
        const std::string reply = answer(probe.cmd, probe.request(path));
        EXPECT_EQ(reply == hexOf(probe.failure(path)), failed) << what;
        EXPECT_EQ(snapshot(disk, false), snapshot(twin, false)) << what;
      }
    }
  }
  DiskRoot::forceComponentWalk(false);
}

TEST_F(DiskTest, TheLengthOfAFileIsLimitedUnlessAnOfficeProgramAsks) {
  constexpr std::uint64_t kLimit = 10485760;
  fs::create_directory(disk + "/v.doc");  // the last dot may stand in a directory's name
  bool limited = true;
  for (const std::string path :
       {"/a.txt", "/plain", "/a.do", "/a.DOCX", "/a.doc.txt", "/a.doc", "/a.xls", "/a.tmp",
        "/a.ppt", "/a.vsd", "/a.spp", "/a.docx", "/a.docm", "/v.doc/f"}) {
    limited = limited && path != "/a.doc";
    for (const std::uint64_t asked : {std::uint64_t{0}, kLimit, kLimit + 1, 4096 * kLimit}) {
      put(disk + path, "contents");
      const std::string fixed = le(asked, 8) + le(path.size(), 4);
      EXPECT_EQ(ask(109, fixed + le(7, 4) + path), fixed + le(0, 4) + path);
      const auto size = static_cast<std::uint64_t>(lstatOf(disk + path).st_size);
      EXPECT_EQ(size, limited ? std::min(asked, kLimit) : asked) << path;
    }
  }
  converse(
      "109 ffffffffffffffff 02000000 00000000 '/x' | ffffffffffffffff 02000000 ffffffff '/x';");
}

TEST_F(DiskTest, ABatchOfChunksStopsAtTheFirstThatFails) {
  device.pathTable->Add("/f*");
  const std::string two = "0000000000000000 04000000 'abcd' 0a00000000000000 02000000 'ef'";
  for (const auto& row :
       table(" | ;" + two + " | ;" + two + "0000000000 | file_write failed, res: 30;" + two + R"(
        0000000000000000 02000000 'x' | buffer length error, size: 2, buffer_size:13;
        0102030405060708 090a0b0c     | file_write failed, res: 0;
        0000000000000000 ffffffff 'x' | buffer length error, size: -1, buffer_size:13;
        ffffffffffffffff 01000000 'x' | file_write failed size: 1, result: -1;)")) {
    put(disk + "/f", "........");
    log.clear();
    const std::string data = wire(row[0]), rest = le(0, 8) + le(2, 2) + le(0, 2) + "/f";
    EXPECT_EQ(ask(106, le(5, 8) + le(data.size(), 4) + rest + data),
              le(5, 8) + le(row[1].empty() ? data.size() : 0, 4) + rest)
        << row[0];
    const bool written = data.size() >= 30;
    EXPECT_EQ(contentsOf(disk + "/f"), written ? std::string("abcd....\0\0ef", 12) : "........");
    EXPECT_EQ(log.errors(row[1]) > 0, !row[1].empty()) << row[0];
  }
  EXPECT_EQ(device.traces().at(1),
            "LOCAL_UDISK_WRITE_FILE_SUCCESS success /f udisk writeFile success");
  EXPECT_EQ(device.traces().at(2), "LOCAL_UDISK_WRITE_FILE_FAIL error /f udisk writeFile fail");
}

TEST_F(DiskTest, AWriteIsCarriedOutWholeThoughNobodyWaitsForIt) {
  struct Gone final : RequestSource {
    void poll() noexcept override {}
    bool await() noexcept override { return false; }
    bool deliversReplies() noexcept override { return false; }
  } gone;
  for (const bool closed : {false, true}) {
    std::optional<RequestSourceOffer> offer;
    closed ? op.StopServing() : void(offer.emplace(device, gone));
    put(disk + "/spare", "");
    EXPECT_EQ(ask(123, le(1, 4) + readOf("/spare")), std::nullopt);  // nobody would read it
    const std::string rest = le(0, 8) + le(6, 2) + le(0, 2);
    const std::string chunks =
        wire("0000000000000000 02000000 'xx' 0200000000000000 03000000 'yyy'");
    EXPECT_EQ(ask(106, le(0, 8) + le(29, 4) + rest + "/spare" + chunks),
              le(0, 8) + le(29, 4) + rest + "/spare");
    EXPECT_EQ(contentsOf(disk + "/spare"), "xxyyy");
  }
}

TEST_F(DiskTest, BitsThatAreNoPermissionsMakeNoDifference) {
  fs::create_symlink("made", disk + "/link-made");
  for (const std::string path : {"/link-made", "/plain"}) {
    const std::string reply =
        ask(103, le(path.size(), 4) + le(0, 4) + le(S_IFREG | 0640, 4) + le(0, 4) + path).value();
    EXPECT_EQ(reply[15], '\0') << path;
    EXPECT_EQ(fs::status(disk + path).permissions(), fs::perms(0640)) << path;
  }
}

TEST_F(DiskTest, LocalPathsNeedNoMountPoint) {
  FileManagerLinux files;
  std::string directory = outside + "/x/y/z", file = outside + "/inside.txt",
              none = outside + "/no";
  EXPECT_EQ(files.UdiskMakeDir(directory.data(), 0777, 0), 0);
  EXPECT_TRUE(fs::exists(outside + "/x/y") && !fs::exists(directory));
  udisk_statvfs statistics{};
  files.UdiskGetStatvfs(file.data(), &statistics);
  EXPECT_GT(statistics.f_blocks, 0U);  // also for a path that is no directory
  files.UdiskGetStatvfs(none.data(), &statistics);
  EXPECT_EQ(statistics, udisk_statvfs{});
  char buffer[8] = {};
  EXPECT_EQ(files.UdiskReadFile(file.c_str(), buffer, 0, -1), 0);
  EXPECT_EQ(files.UdiskWriteFile(file.data(), buffer, 0, -1), -1);
  EXPECT_EQ(files.UdiskWriteFile(none.data(), buffer, 0, 8), 0);
}

}  // namespace
}  // namespace zor::test
