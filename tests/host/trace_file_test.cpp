#include "trace_file.h"

#include <gmock/gmock.h>
#include <json/json.h>
#include <unistd.h>

#include <fstream>
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

}  // namespace
}  // namespace zor::host
