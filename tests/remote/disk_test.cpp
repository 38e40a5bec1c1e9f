// Requests and answers of every operation, byte by byte, and what happens when
// an answer is not as it should be.
#include "disk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "test_bytes.h"

namespace zor::remote::test {
namespace {

/// Keeps requests until the test answers them.
class HeldTransport : public Transport {
 public:
  void submit(Request request, Completion done) override { keep(std::move(request), done); }
  void submitFenced(Request request, Completion done, Request fence) override {
    keep(std::move(request), done);
    fences.push_back(bytesOf(fence));
  }
  void post(std::function<void()> task) override { task(); }

  void answer(const std::string& bytes) { completions.back()(Buffer(std::string_view(bytes))); }

  static std::string bytesOf(const Request& request) {
    std::string bytes = std::to_string(wire::code(request.command)) + ':';
    for (const Buffer* part : {&request.payload, request.data.get()}) {
      if (part == nullptr) continue;
      bytes.append(reinterpret_cast<const char*>(part->data()), part->size());
    }
    return bytes;
  }

  std::vector<std::string> requests;
  std::vector<std::string> fences;
  std::vector<Completion> completions;

 private:
  void keep(Request request, const Completion& done) {
    requests.push_back(bytesOf(request));
    completions.push_back(done);
  }
};

using Done = std::function<void(std::optional<Error>)>;

/// Reduces any outcome to whether it was an error.
auto outcome(const Done& done) {
  return
      [done](auto result) { done(result ? std::nullopt : std::optional<Error>(result.error())); };
}

Listing oneEntryListing() {
  const std::string bytes = hex(std::string(kStatBytes) + "02 00 'x' 00" + "00");
  return std::move(*Listing::parse(Buffer(std::string_view(bytes)), 0, 1));
}

struct Operation {
  const char* name;
  std::function<void(Disk&, const Done&)> start;
  std::string request;  ///< behind "COMMAND:"
  std::string answer;
  bool fails = false;  ///< the answer says that the operation failed
};

std::vector<Operation> operations() {
  const std::string stat = kStatBytes;
  const std::string zeros = "00 00 00 00 00 00 00 00";
  const auto byteString = [](std::string_view text) { return std::as_bytes(std::span(text)); };
  return {
      {"attributes", [](Disk& d, const Done& done) { d.attributes("/a", outcome(done)); },
       "102:" + hex("02 00 00 00 '/a'"), hex("02 00 78 00 '/a'" + stat)},
      {"attributes of nothing",
       [](Disk& d, const Done& done) { d.attributes("/a", outcome(done)); },
       "102:" + hex("02 00 00 00 '/a'"), hex("02 00 00 00 '/a'"), true},
      {"create", [](Disk& d, const Done& done) { d.create("/a", 0640, outcome(done)); },
       "103:" + hex("02 00 00 00  00 00 00 00  A0 01 00 00  00 00 00 00 '/a'"),
       hex("02 00 00 00  00 00 00 00  A0 01 00 00  07 00 00 00 '/a'")},
      {"create failing", [](Disk& d, const Done& done) { d.create("/a", 0640, outcome(done)); },
       "103:" + hex("02 00 00 00  00 00 00 00  A0 01 00 00  00 00 00 00 '/a'"),
       hex("02 00 00 00  00 00 00 00  A0 01 00 00  FF FF FF FF '/a'"), true},
      {"read", [](Disk& d, const Done& done) { d.read("/a", 0x100000002, 9, outcome(done)); },
       "105:" + hex("02 00 00 00 01 00 00 00  00 00 00 00  09 00 00 00  02 00 00 00  00 00 00 00"
                    "'/a'"),
       hex("02 00 00 00 01 00 00 00  00 00 00 00  04 00 00 00  02 00 00 00  00 00 00 00 '/adata'")},
      {"write",
       [](Disk& d, const Done& done) {
         d.write("/a", 3, Buffer(std::string_view("xyz")), outcome(done));
       },
       "106:" + hex("03 00 00 00 00 00 00 00  03 00 00 00  00 00 00 00  03 00 00 00  02 00 00 00"
                    "'/axyz'"),
       hex("03 00 00 00 00 00 00 00  03 00 00 00  00 00 00 00  03 00 00 00  02 00 00 00 '/a'")},
      {"write failing",
       [](Disk& d, const Done& done) {
         d.write("/a", 3, Buffer(std::string_view("xyz")), outcome(done));
       },
       "106:" + hex("03 00 00 00 00 00 00 00  03 00 00 00  00 00 00 00  03 00 00 00  02 00 00 00"
                    "'/axyz'"),
       hex("03 00 00 00 00 00 00 00  00 00 00 00  00 00 00 00  03 00 00 00  02 00 00 00 '/a'"),
       true},
      {"write batch, without its empty piece",
       [=](Disk& d, const Done& done) {
         d.writeBatch("/a", {{1, byteString("A")}, {5, {}}, {0x0200, byteString("BC")}},
                      outcome(done));
       },
       "106:" + hex(zeros + "1B 00 00 00  00 00 00 00  00 00 00 00  02 00 00 00 '/a'"
                            "01 00 00 00 00 00 00 00  01 00 00 00 'A'"
                            "00 02 00 00 00 00 00 00  02 00 00 00 'BC'"),
       hex(zeros + "1B 00 00 00  00 00 00 00  00 00 00 00  02 00 00 00 '/a'")},
      {"list", [](Disk& d, const Done& done) { d.list("/d", outcome(done)); },
       "107:" + hex(zeros + "00 00 00 00  02 00  00 00 '/d'"),
       hex(zeros + "7D 00 00 00  02 00  01 00 '/d'" + stat + "02 00 'x' 00" + "00")},
      {"list of nothing", [](Disk& d, const Done& done) { d.list("/d", outcome(done)); },
       "107:" + hex(zeros + "00 00 00 00  02 00  00 00 '/d'"),
       hex(zeros + "00 00 00 00  02 00  00 00 '/d'"), true},
      {"check of a directory",
       [](Disk& d, const Done& done) { d.checkDir("/d", oneEntryListing(), outcome(done)); },
       "121:" + hex(zeros + "7D 00 00 00  02 00  01 00 '/d'" + stat + "02 00 'x' 00" + "00"),
       hex(zeros + "7D 00 00 00  02 00  01 00 '/d'" + stat + "02 00 'y' 00" + "00")},
      {"xattr", [](Disk& d, const Done& done) { d.xattr("/a", "user.x", outcome(done)); },
       "108:" + hex(zeros + "00 00 00 00  02 00  06 00 '/auser.x'"),
       hex(zeros + "00 00 00 00  02 00  06 00 'user.x'")},
      {"truncate", [](Disk& d, const Done& done) { d.truncate("/a", 0x300000004, outcome(done)); },
       "109:" + hex("04 00 00 00 03 00 00 00  02 00 00 00  00 00 00 00 '/a'"),
       hex("04 00 00 00 03 00 00 00  02 00 00 00  00 00 00 00 '/a'")},
      {"fsync failing", [](Disk& d, const Done& done) { d.fsync("/a", outcome(done)); },
       "110:" + hex("02 00 00 00  00 00 00 00  00 00 00 00 '/a'"),
       hex("02 00 00 00  00 00 00 00  FF FF FF FF '/a'"), true},
      {"chmod", [](Disk& d, const Done& done) { d.chmod("/a", 0755, outcome(done)); },
       "111:" + hex("00 00 00 00  02 00  ED 01 '/a'"), hex("00 00 00 00  02 00  ED 01 '/a'")},
      {"chown", [](Disk& d, const Done& done) { d.chown("/a", 1000, 0xffffffff, outcome(done)); },
       "112:" + hex("02 00 00 00  E8 03 00 00  FF FF FF FF  00 00 00 00 '/a'"),
       hex("02 00 00 00  E8 03 00 00  FF FF FF FF  00 00 00 00 '/a'")},
      {"statvfs", [](Disk& d, const Done& done) { d.statvfs("/", outcome(done)); },
       "113:" + hex("01 00 00 00  00 00 00 00 '/'"),
       hex("01 00 00 00  70 00 00 00 '/'") + std::string(112, '\1')},
      {"statvfs without any", [](Disk& d, const Done& done) { d.statvfs("/", outcome(done)); },
       "113:" + hex("01 00 00 00  00 00 00 00 '/'"), hex("01 00 00 00  70 00 00 00 '/'"), true},
      {"make a directory", [](Disk& d, const Done& done) { d.makeDir("/n", 0777, outcome(done)); },
       "114:" + hex("00 00 00 00  02 00  FF 01 '/n'"), hex("00 00 00 00  02 00  FF 01 '/n'")},
      {"remove a directory", [](Disk& d, const Done& done) { d.removeDir("/n", outcome(done)); },
       "115:" + hex("02 00 00 00 '/n'"), hex("02 00 FF FF '/n'"), true},
      {"link", [](Disk& d, const Done& done) { d.link("/a", "/bc", outcome(done)); },
       "116:" + hex("00 00 00 00  02 00  03 00 '/a/bc'"), hex("00 00 00 00  02 00  03 00 '/a/bc'")},
      {"unlink", [](Disk& d, const Done& done) { d.unlink("/a", outcome(done)); },
       "117:" + hex("02 00 00 00 '/a'"), hex("02 00 00 00 '/a'")},
      {"rename", [](Disk& d, const Done& done) { d.rename("/bc", "/a", outcome(done)); },
       "118:" + hex("00 00 00 00  03 00  02 00 '/bc/a'"), hex("FF FF FF FF  03 00  02 00 '/bc/a'"),
       true},
      {"flush", [](Disk& d, const Done& done) { d.flush("/a", outcome(done)); },
       "119:" + hex("02 00 00 00  00 00 00 00 '/a'"), hex("02 00 00 00  00 00 00 00 '/a'")},
      {"release", [](Disk& d, const Done& done) { d.release("/a", outcome(done)); },
       "120:" + hex("02 00 00 00  00 00 00 00 '/a'"), hex("02 00 00 00  00 00 00 00 '/a'")},
      {"small files",
       [](Disk& d, const Done& done) {
         d.readSmallFiles({{"/a", 0, 100}, {"/bc", 7, 2}}, outcome(done));
       },
       "123:" + hex("02 00 00 00" + zeros +
                    "00 00 00 00  64 00 00 00  02 00 00 00  00 00 00 00"
                    "'/a'"
                    "07 00 00 00 00 00 00 00  00 00 00 00  02 00 00 00  03 00 00 00"
                    "00 00 00 00 '/bc'"),
       hex("02 00 00 00" + zeros +
           "00 00 00 00  03 00 00 00  02 00 00 00  00 00 00 00 '/aone'"
           "07 00 00 00 00 00 00 00  00 00 00 00  00 00 00 00  03 00 00 00  00 00 00 00 '/bc'")},
  };
}

/// How the operation ends when the host answers with `answer`.
std::optional<Error> answered(const Operation& operation, const std::string& answer) {
  HeldTransport transport;
  Disk disk(transport);
  std::optional<std::optional<Error>> result;
  operation.start(disk, [&](std::optional<Error> error) { result = std::move(error); });
  EXPECT_EQ(transport.requests, std::vector<std::string>{operation.request}) << operation.name;
  if (transport.completions.size() != 1) return Error{};
  transport.answer(answer);
  EXPECT_TRUE(result.has_value()) << operation.name;
  return result.value_or(Error{});
}

TEST(DiskTest, RequestsAndAnswersAreAsAgreed) {
  for (const Operation& operation : operations()) {
    const std::optional<Error> error = answered(operation, operation.answer);
    EXPECT_EQ(error.has_value(), operation.fails)
        << operation.name << (error ? error->message : "");
    EXPECT_EQ(error.value_or(Error{}).kind, ErrorKind::kFailed) << operation.name;
  }
}

TEST(DiskTest, AnswersThatAreTooShortOrTooLongAreErrors) {
  for (const Operation& operation : operations()) {
    if (operation.fails) continue;
    for (std::size_t length = 0; length < operation.answer.size(); ++length) {
      EXPECT_TRUE(answered(operation, operation.answer.substr(0, length)))
          << operation.name << " cut to " << length;
    }
    EXPECT_TRUE(answered(operation, operation.answer + 'x')) << operation.name;
  }
}

TEST(DiskTest, EveryLyingLengthFieldIsAnError) {
  // Each field that declares a length, set to the largest value and off by one.
  const struct {
    const char* operation;
    std::size_t offset;
    std::size_t size;
  } kFields[] = {
      {"attributes", 0, 2},   {"attributes", 2, 2}, {"create", 0, 4},      {"read", 12, 4},
      {"read", 16, 4},        {"write", 8, 4},      {"write", 20, 2},      {"list", 8, 4},
      {"list", 12, 2},        {"list", 14, 2},      {"list", 138, 2},      {"xattr", 12, 2},
      {"xattr", 14, 2},       {"truncate", 8, 4},   {"chmod", 4, 2},       {"chown", 0, 4},
      {"statvfs", 0, 4},      {"statvfs", 4, 4},    {"link", 4, 2},        {"link", 6, 2},
      {"unlink", 0, 2},       {"flush", 0, 4},      {"small files", 0, 4}, {"small files", 16, 4},
      {"small files", 20, 4},
  };
  const std::vector<Operation> all = operations();
  for (const auto& field : kFields) {
    const auto operation = std::find_if(all.begin(), all.end(), [&](const Operation& each) {
      return each.name == std::string_view(field.operation);
    });
    ASSERT_NE(operation, all.end()) << field.operation;
    std::string largest = operation->answer;
    largest.replace(field.offset, field.size, std::string(field.size, '\xff'));
    EXPECT_TRUE(answered(*operation, largest)) << field.operation << " at " << field.offset;
    for (const int step : {-1, 1}) {
      std::string near = operation->answer;
      near[field.offset] = static_cast<char>(near[field.offset] + step);
      EXPECT_TRUE(answered(*operation, near)) << field.operation << " at " << field.offset;
    }
  }
}

TEST(DiskTest, AnswersAboutSomethingElseAreErrors) {
  // The answer with one byte of the echoed path or offset changed.
  const struct {
    const char* operation;
    std::size_t offset;
  } kEchoes[] = {{"attributes", 5}, {"read", 0},   {"read", 25},        {"list", 17},
                 {"xattr", 16},     {"link", 10},  {"small files", 29}, {"write", 25},
                 {"flush", 9},      {"statvfs", 8}};
  const std::vector<Operation> all = operations();
  for (const auto& echo : kEchoes) {
    for (const Operation& operation : all) {
      if (operation.name != std::string_view(echo.operation)) continue;
      std::string answer = operation.answer;
      answer[echo.offset] = static_cast<char>(answer[echo.offset] ^ 1);
      const std::optional<Error> error = answered(operation, answer);
      ASSERT_TRUE(error) << operation.name;
      EXPECT_EQ(error->kind, ErrorKind::kBadReply) << operation.name;
    }
  }
}

TEST(DiskTest, ListingsWithImpossibleNamesAreErrors) {
  const std::string head = "00 00 00 00 00 00 00 00";
  const std::string stat = kStatBytes;
  const struct {
    const char* why;
    std::string listing;
  } kListings[] = {
      {"empty name", stat + "01 00 00" + "00"},
      {"slash", stat + "04 00 'a/b' 00" + "00"},
      {"zero byte inside", stat + "04 00 'a' 00 'b' 00" + "00"},
      {"no terminator", stat + "02 00 'ab'" + "00"},
      {"length 0", stat + "00 00" + "00"},
  };
  for (const auto& each : kListings) {
    HeldTransport transport;
    std::optional<Result<Listing>> result;
    Disk(transport).list("/", [&](Result<Listing> listing) { result = std::move(listing); });
    const std::string listing = hex(each.listing);
    std::string answer = hex(head + "00 00 00 00  01 00  01 00 '/'") + listing;
    answer[8] = static_cast<char>(listing.size());
    transport.answer(answer);
    ASSERT_TRUE(result) << each.why;
    ASSERT_FALSE(result->ok()) << each.why;
    EXPECT_EQ(result->error().kind, ErrorKind::kBadReply) << each.why;
  }
}

TEST(DiskTest, DecodesEveryField) {
  HeldTransport transport;
  Disk disk(transport);
  std::optional<udisk_stat> found;
  disk.attributes("/a", [&](Result<udisk_stat> result) { found = *result; });
  transport.answer(hex("02 00 78 00 '/a'" + std::string(kStatBytes)));
  const udisk_stat expected{-2,      0x8000000000000002, 3,        5,       -6,   8,   4096,
                            {9, 10}, {-11, 12},          {13, 14}, 0100644, 1000, 100, 0};
  EXPECT_EQ(found, expected);

  std::string answer = hex("01 00 00 00  70 00 00 00 '/'");
  for (char field = 1; field <= 14; ++field) {
    answer += std::string(1, field) + std::string(6, '\0') + (field == 3 ? '\x80' : '\0');
  }
  std::optional<udisk_statvfs> statistics;
  disk.statvfs("/", [&](Result<udisk_statvfs> result) { statistics = *result; });
  transport.answer(answer);
  const udisk_statvfs expectedStatistics{1,  2,  0x8000000000000003, 4, 5, 6, 7, 8, 9,
                                         10, 11, {12, 13, 14}};
  EXPECT_EQ(statistics, expectedStatistics);
}

TEST(DiskTest, ChecksDirectoriesWithAFenceBehind) {
  HeldTransport transport;
  Disk disk(transport);
  std::vector<bool> changed;
  for (int i = 0; i < 2; ++i) {
    disk.checkDir("/d", oneEntryListing(),
                  [&](Result<DirCheck> check) { changed.push_back(check->changed); });
  }
  EXPECT_EQ(transport.fences[0], "119:" + hex("02 00 00 00  00 00 00 00 '/d'"));
  transport.completions[0](Error{ErrorKind::kUnanswered, ""});
  // The directory has gone.
  transport.answer(hex("00 00 00 00 00 00 00 00  00 00 00 00  02 00  00 00 '/d'"));
  EXPECT_EQ(changed, (std::vector<bool>{false, true}));
}

TEST(DiskTest, RefusesWhatTheHostWouldNotAnswer) {
  HeldTransport transport;
  Disk disk(transport);
  const std::string tooLong = "/" + std::string(kMaxPathLength, 'x');
  std::vector<ErrorKind> kinds;
  const auto note = [&](auto result) { kinds.push_back(result.error().kind); };
  const std::string_view zero("/a\0b", 4);
  for (const std::string_view path :
       {std::string_view(""), std::string_view("a"), zero, std::string_view(tooLong)}) {
    disk.attributes(path, note);
    disk.rename("/a", path, note);
    disk.write(path, 0, Buffer(1), note);
    disk.readSmallFiles({{"/a", 0, 1}, {std::string(path), 0, 1}}, note);
    disk.checkDir(path, Listing(), note);
  }
  disk.readSmallFiles({{"/a", 0, 0x4000000}}, note);
  disk.xattr("/a", zero, note);
  disk.write("/a", 0, Buffer(kMaxWriteSize + 1), note);
  EXPECT_EQ(kinds, std::vector<ErrorKind>(23, ErrorKind::kRefused));
  EXPECT_TRUE(transport.requests.empty());
}

}  // namespace
}  // namespace zor::remote::test
