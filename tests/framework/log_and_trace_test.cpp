#include <gtest/gtest.h>

#include <set>

#include "driver/log_lines.h"
#include "zor_tracer.h"

namespace zor::test {
namespace {

TEST(Log, ALineCarriesItsFrameAndNothingThatANameBringsAlong) {
  LogLines log;
  const char* name = "a\nb\x1b[2J\x7f gr\xc3\xbc \xc2\x9b \xc2\xa0 \u202e %s";
  const int line = __LINE__ + 1;
  MORVEL_DEBUG(5, "%s is %d of %llu\n", name, -1, 1ULL << 40);
  EXPECT_EQ(log.all().at(0), "[ZOR_LOG] log_and_trace_test.cpp TestBody(" + std::to_string(line) +
                                 "): \"Debug:\" \"a\\x0ab\\x1b[2J\\x7f gr\xc3\xbc \\xc2\\x9b "
                                 "\xc2\xa0 \\xe2\\x80\\xae %s is -1 of "
                                 "1099511627776\\n\"");
}

TEST(Log, TheLevelIsLookedAtBeforeAnyArgument) {
  LogLines log;
  for (const auto& [level, expected] : {std::pair{3, 3}, {5, 2}, {7, 1}, {8, 0}}) {
    morvelLogSetLevel(level);
    log.clear();
    int evaluated = 0;
    MORVEL_DEBUG(kLogFrequent, "%d", ++evaluated);
    MORVEL_DEBUG(kLogDebug, "%d", ++evaluated);
    MORVEL_ERROR("%d", ++evaluated);
    EXPECT_EQ(evaluated, expected);
    EXPECT_EQ(log.all().size(), static_cast<std::size_t>(expected));
  }
}

TEST(Trace, IdsAreSixteenHexDigitsAndIndependent) {
  std::set<std::string> ids;
  while (ids.size() < 500) {  // some of them begin with a zero
    const std::string id = ZorTracer::GetInstance()->GenerateTraceId();
    ASSERT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
    ASSERT_TRUE(id.size() == 16 && ids.insert(id).second) << id;
  }
}

TEST(Log, ALineHasItsBound) {
  LogLines log;
  const std::string path(60 << 20, 'x');
  MORVEL_ERROR("a: %s, b: %s", path.c_str(), "b");
  const std::string line = log.all().at(0);
  EXPECT_EQ(line.find("x (cut, 62914"), 10240 + sizeof "[ZOR_LOG] " - 2) << line.size();
}

}  // namespace
}  // namespace zor::test
