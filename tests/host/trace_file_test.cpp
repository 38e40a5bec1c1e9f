#include "host/trace_file.h"

#include <gmock/gmock.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

namespace zor::host {
namespace {

TEST(TraceFile, AppendsOneObjectPerEvent) {
  const std::string path = ::testing::TempDir() + "trace." + std::to_string(::getpid());
  std::ofstream(path) << "{}\n";
  {
    TraceFile file(path);
    for (int i = 0; i < 3; ++i) {
      file.write("0123", "/caf\xe9\n\"x", "LOCAL_E", {{"message", "a\\b\x01"}});
    }
  }
  std::ifstream lines(path);
  ::unlink(path.c_str());
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(line, "{}");
  int count = 0;
  for (; std::getline(lines, line); ++count) {
    Json::Value event;
    std::istringstream text(line);
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &event, nullptr)) << line;
    EXPECT_EQ(event["id"].asString(), "0123");
    EXPECT_EQ(event["event"].asString(), "LOCAL_E");
    EXPECT_EQ(event["context"].asString(), "/caf\xef\xbf\xbd\n\"x");
    EXPECT_EQ(event["attributes"]["message"].asString(), "a\\b\x01");
    EXPECT_THAT(event["time"].asString(), ::testing::MatchesRegex("....-..-..T..:..:..\\....Z"));
  }
  EXPECT_EQ(count, 3);
}

TEST(TraceFile, WritesToNothingThatSomebodyElseMayHavePutThere) {
  const std::string path = ::testing::TempDir() + "odd." + std::to_string(::getpid());
  const std::string victim = path + ".victim";
  const struct {
    std::function<int()> make;
    const char* reason;  ///< null: it is used
  } rows[] = {{[&] { return ::symlink(victim.c_str(), path.c_str()); }, "it is a symbolic link"},
              {[&] { return ::link(victim.c_str(), path.c_str()); }, "it has a second name"},
              {[&] { return ::mkdir(path.c_str(), 0700); }, "Is a directory"},
              {[&] { return ::mkfifo(path.c_str(), 0600); }, "No such device or address"},
              {[&] {
                 std::ofstream(path).close();
                 return ::geteuid() == 0 ? ::chown(path.c_str(), 65534, 0) : -1;
               },
               "it belongs to another user"},
              {[] { return 0; }, nullptr}};
  for (const auto& row : rows) {
    std::ofstream(victim) << "data";
    std::string reason;
    const bool made = row.make() == 0;
    try {
      TraceFile(path).write("0", "/", "E", {});
    } catch (const std::runtime_error& error) {
      reason = error.what();
    }
    if (made && row.reason != nullptr) {
      EXPECT_THAT(reason, ::testing::EndsWith(std::string(": ") + row.reason));
    } else if (made) {
      struct stat status {};
      EXPECT_EQ(reason, "");
      EXPECT_EQ(::stat(path.c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 0777, 0600U);
    }
    std::ifstream untouched(victim);
    std::string contents;
    std::getline(untouched, contents);
    EXPECT_EQ(contents, "data") << row.reason;
    std::filesystem::remove(path);
    std::filesystem::remove(victim);
  }
  EXPECT_NO_THROW(TraceFile("/dev/null"));
}

}  // namespace
}  // namespace zor::host
