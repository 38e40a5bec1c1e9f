// What the log and the traces show of requests: whose lines they are, and how much of them.
#include <regex>

#include "disk_fixture.h"

namespace zor::test {
namespace {

TEST_F(DiskTest, LinesCarryTheNameOfTheFunctionThatTheyBelongTo) {
  put(disk + "/file", "");
  op.BusEventHandle(requestOf(513, le(5000000, 4)));
  ask(105, readOf("/file"));
  ask(106, wire("0000000000000000 04000000 00000000 01000000 0500 0000 '/file' 'data'"));
  ask(106, wire("ffffffffffffffff 01000000 00000000 01000000 0500 0000 '/file' 'x'"));
  ask(106, wire("0000000000000000 0d000000 00000000 00000000 0500 0000 '/file'"
                "0000000000000000 02000000 'x'"));
  ask(114, wire("00000000 0a00 ed01 '/new\\a/b/c'"));
  ask(123, le(1, 4) + "short");
  for (const auto& row : table(R"(
      start limit udisk write | file_read;
      end limit udisk write   | file_read;
      file_write full path: DISK/file, write_header->fuse_length: 1, offset: 0,write_header->file_buf_length:4\n | file_write;
      pwrite failed res: -1   | UdiskWriteFile;
      buffer length error     | file_write;
      pszDir:DISK/new/a/b\n   | UdiskMakeDir;
      small_file_read remaining | small_file_read;)")) {
    const std::string text = std::regex_replace(row[0], std::regex("DISK"), disk);
    EXPECT_TRUE(log.has(text)) << text;
    for (const std::string& line : log.all("\"" + text)) {
      EXPECT_NE(line.find(" " + row[1] + "("), line.npos) << line;
    }
  }
}

TEST_F(DiskTest, ABatchThatFailsIsTheLogsBusinessOnce) {
  std::string records = le(1000, 4);
  for (int i = 0; i < 1000; ++i) records += readOf("/none");
  ASSERT_TRUE(ask(123, records));
  EXPECT_EQ(log.errors(), 3U);
  EXPECT_EQ(log.errors("so failed 1000 of 1000"), 1U);
  log.clear();
  ASSERT_TRUE(ask(123, le(2, 4) + readOf("/spare") + readOf("/none")));
  EXPECT_EQ(log.errors(), 2U);
}

TEST_F(DiskTest, ABatchDoesNotGoOnInWhatWasMovedOffTheDisk) {
  fs::create_directory(disk + "/moved");
  put(disk + "/moved/file", "data");
  log.onLine = [&](const std::string& line) {  // between two records
    if (line.find("file_read send back") == line.npos || !fs::exists(disk + "/moved")) return;
    fs::rename(disk + "/moved", outside + "/moved");
    ::usleep(3000);  // longer than what was opened may count
  };
  for (const bool together : {false, true}) {
    std::optional<UDiskOperator::RequestBatch> batch;
    if (together) batch.emplace(op);
    const std::string block = readOf("/moved/file");
    EXPECT_EQ(ask(123, le(2, 4) + block + block),
              le(2, 4) + block + "data" + readOf("/moved/file", 0));
    fs::rename(outside + "/moved", disk + "/moved");
  }
}

TEST_F(DiskTest, OfALongPathOnlyTheBeginningIsShown) {
  device.pathTable->Add("*");
  const std::string path = "/" + std::string(1 << 20, 'x');
  ask(105, readOf(path));
  ask(119, le(path.size(), 4) + le(0, 4) + path);
  ask(103, le(path.size(), 4) + le(0, 12) + path);
  for (const std::string& line : log.all()) EXPECT_LT(line.size(), 2 * 4200U);
  for (const std::string& trace : device.traces()) EXPECT_LT(trace.size(), 4200U);
  EXPECT_EQ(device.readFailures, std::vector{path.substr(0, 4096)});
}

}  // namespace
}  // namespace zor::test
