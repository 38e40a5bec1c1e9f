// Requests and answers of every operation, byte by byte, and what happens when
// an answer is not as it should be.
#include "client/disk.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <sstream>

#include "support/test_bytes.h"

namespace zor::client::test {
namespace {

/// Keeps requests until the test answers them.
class HeldTransport : public Transport {
 public:
  void submit(OutgoingRequest request, Completion done) override { keep(std::move(request), done); }
  void submitFenced(OutgoingRequest request, Completion done, OutgoingRequest fence) override {
    keep(std::move(request), done);
    fences.push_back(bytesOf(fence));
  }
  void post(std::function<void()> task) override { task(); }

  void answer(const std::string& bytes) { completions.back()(Buffer(std::string_view(bytes))); }

  static std::string bytesOf(const OutgoingRequest& request) {
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
  void keep(OutgoingRequest request, const Completion& done) {
    requests.push_back(bytesOf(request));
    completions.push_back(done);
  }
};

/// Reduces any outcome to whether it was an error.
struct Done {
  template <class T>
  void operator()(const Result<T>& result) const {
    *outcome = result ? std::nullopt : std::optional<Error>(result.error());
  }
  std::optional<std::optional<Error>>* outcome;
};

const std::string kStat = kStatBytes;
const std::string kOneEntry = kStat + "0200 'x' 00 00";

Listing oneEntryListing() {
  const std::string bytes = hex(kOneEntry);
  return std::move(*Listing::parse(Buffer(std::string_view(bytes)), 0, 1));
}

/// Typed as for hex(); an answer of "=" is the request again.
struct Operation {
  const char* name;
  std::function<void(Disk&, Done)> start;
  int command;
  std::string request, answer;
  /// Offset and size of what in the answer declares a length or repeats the request.
  const char* echoes = "";
  std::string failure = "";  ///< how the host says that it failed
};

std::vector<Operation> operations() {
  const std::string nothing = "0000000000000000 00000000 ";
  const auto bytes = [](std::string_view text) { return std::as_bytes(std::span(text)); };
  return {
      {"attributes", [](Disk& d, Done done) { d.attributes("/a", done); }, 102, "0200 0000 '/a'",
       "0200 7800 '/a'" + kStat, "0 2 2 2 5 1", "0200 0000 '/a'"},
      {"create", [](Disk& d, Done done) { d.create("/a", 0640, done); }, 103,
       "02000000 00000000 a0010000 00000000 '/a'", "02000000 00000000 a0010000 07000000 '/a'",
       "0 4", "02000000 00000000 a0010000 ffffffff '/a'"},
      {"read", [](Disk& d, Done done) { d.read("/a", 0x100000002, 9, done); }, 105,
       "0200000001000000 00000000 09000000 02000000 00000000 '/a'",
       "0200000001000000 00000000 04000000 02000000 00000000 '/adata'", "0 8 12 4 16 4 25 1"},
      {"write", [=](Disk& d, Done done) { d.write("/a", 3, Buffer(bytes("xyz")), done); }, 106,
       "0300000000000000 03000000 00000000 03000000 02000000 '/axyz'",
       "0300000000000000 03000000 00000000 03000000 02000000 '/a'", "8 4 20 2 25 1",
       "0300000000000000 00000000 00000000 03000000 02000000 '/a'"},
      {"write batch, without its empty piece",
       [=](Disk& d, Done done) {
         d.writeBatch("/a", {{1, bytes("A")}, {5, {}}, {0x0200, bytes("BC")}}, done);
       },
       106,
       "0000000000000000 1b000000 00000000 00000000 02000000 '/a'"
       "0100000000000000 01000000 'A' 0002000000000000 02000000 'BC'",
       "0000000000000000 1b000000 00000000 00000000 02000000 '/a'"},
      {"list", [](Disk& d, Done done) { d.list("/d", done); }, 107, nothing + "0200 0000 '/d'",
       "0000000000000000 7d000000 0200 0100 '/d'" + kOneEntry, "8 4 12 2 14 2 17 1 138 2",
       nothing + "0200 0000 '/d'"},
      {"check of a directory",
       [](Disk& d, Done done) { d.checkDir("/d", oneEntryListing(), done); }, 121,
       "0000000000000000 7d000000 0200 0100 '/d'" + kOneEntry,
       "0000000000000000 7d000000 0200 0100 '/d'" + kStat + "0200 'y' 00 00"},
      {"xattr", [](Disk& d, Done done) { d.xattr("/a", "user.x", done); }, 108,
       nothing + "0200 0600 '/auser.x'", nothing + "0200 0600 'user.x'", "12 2 14 2 16 1"},
      {"truncate", [](Disk& d, Done done) { d.truncate("/a", 0x300000004, done); }, 109,
       "0400000003000000 02000000 00000000 '/a'", "=", "8 4"},
      {"fsync", [](Disk& d, Done done) { d.fsync("/a", done); }, 110,
       "02000000 00000000 00000000 '/a'", "=", "", "02000000 00000000 ffffffff '/a'"},
      {"chmod", [](Disk& d, Done done) { d.chmod("/a", 0755, done); }, 111,
       "00000000 0200 ed01 '/a'", "=", "4 2"},
      {"chown", [](Disk& d, Done done) { d.chown("/a", 1000, 0xffffffff, done); }, 112,
       "02000000 e8030000 ffffffff 00000000 '/a'", "=", "0 4"},
      {"statvfs", [](Disk& d, Done done) { d.statfs("/", done); }, 113, "01000000 00000000 '/'",
       "01000000 70000000 '/'" + std::string(224, '1'), "0 4 4 4 8 1", "01000000 70000000 '/'"},
      {"make a directory", [](Disk& d, Done done) { d.makeDir("/n", 0777, done); }, 114,
       "00000000 0200 ff01 '/n'", "="},
      {"remove a directory", [](Disk& d, Done done) { d.removeDir("/n", done); }, 115,
       "0200 0000 '/n'", "=", "", "0200 ffff '/n'"},
      {"link", [](Disk& d, Done done) { d.link("/a", "/bc", done); }, 116,
       "00000000 0200 0300 '/a/bc'", "=", "4 2 6 2 10 1"},
      {"unlink", [](Disk& d, Done done) { d.unlink("/a", done); }, 117, "0200 0000 '/a'", "=",
       "0 2"},
      {"rename", [](Disk& d, Done done) { d.rename("/bc", "/a", done); }, 118,
       "00000000 0300 0200 '/bc/a'", "=", "", "ffffffff 0300 0200 '/bc/a'"},
      {"flush", [](Disk& d, Done done) { d.flush("/a", done); }, 119, "02000000 00000000 '/a'", "=",
       "0 4 9 1"},
      {"release", [](Disk& d, Done done) { d.release("/a", done); }, 120, "02000000 00000000 '/a'",
       "="},
      {"small files",
       [](Disk& d, Done done) {
         d.readSmallFiles({{"/a", 0, 100}, {"/bc", 7, 2}}, done);
       },
       123,
       "02000000 0000000000000000 00000000 64000000 02000000 00000000 '/a'"
       "0700000000000000 00000000 02000000 03000000 00000000 '/bc'",
       "02000000 0000000000000000 00000000 03000000 02000000 00000000 '/aone'"
       "0700000000000000 00000000 00000000 03000000 00000000 '/bc'",
       "0 4 16 4 20 4 29 1"},
  };
}

std::string answerOf(const Operation& operation) {
  return hex(operation.answer == "=" ? operation.request : operation.answer);
}

/// How the operation ends when the host answers with `answer`.
std::optional<Error> answered(const Operation& operation, const std::string& answer) {
  HeldTransport transport;
  Disk disk(transport);
  std::optional<std::optional<Error>> result;
  operation.start(disk, {&result});
  EXPECT_EQ(transport.requests, std::vector<std::string>{std::to_string(operation.command) + ":" +
                                                         hex(operation.request)})
      << operation.name;
  if (transport.completions.size() != 1) return Error{};
  transport.answer(answer);
  EXPECT_TRUE(result.has_value()) << operation.name;
  return result.value_or(Error{});
}

TEST(DiskTest, RequestsAndAnswersAreAsAgreed) {
  for (const Operation& operation : operations()) {
    const std::optional<Error> error = answered(operation, answerOf(operation));
    EXPECT_FALSE(error) << operation.name << (error ? error->message : "");
    if (operation.failure.empty()) continue;
    const std::optional<Error> failure = answered(operation, hex(operation.failure));
    ASSERT_TRUE(failure) << operation.name;
    EXPECT_EQ(failure->kind, ErrorKind::kFailed) << operation.name;
  }
}

TEST(DiskTest, AnswersThatAreCutOrContradictThemselvesOrTheRequestAreErrors) {
  for (const Operation& operation : operations()) {
    const std::string answer = answerOf(operation);
    for (std::size_t length = 0; length < answer.size(); ++length) {
      EXPECT_TRUE(answered(operation, answer.substr(0, length)))
          << operation.name << " cut to " << length;
    }
    EXPECT_TRUE(answered(operation, answer + 'x')) << operation.name;
    std::istringstream echoes(operation.echoes);
    for (std::size_t at = 0, size = 0; echoes >> at >> size;) {
      std::string less = answer, more = answer, most = answer;
      --less[at], ++more[at], most.replace(at, size, size, '\xff');
      for (const std::string& lie : {less, more, most}) {
        const std::optional<Error> error = answered(operation, lie);
        ASSERT_TRUE(error) << operation.name << " at " << at;
        EXPECT_EQ(error->kind, ErrorKind::kBadReply) << operation.name << " at " << at;
      }
    }
  }
}

TEST(DiskTest, ListingsWithImpossibleNamesAreErrors) {
  // Empty, with a slash, with a zero byte inside, without one at the end, of no length.
  for (const char* name : {"0100 00", "0400 'a/b' 00", "0400 'a' 00 'b' 00", "0200 'ab'", "0000"}) {
    const std::string listing = hex(kStat + name + "00");
    EXPECT_FALSE(Listing::parse(Buffer(std::string_view(listing)), 0, 1)) << name;
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
  disk.statfs("/", [&](Result<udisk_statvfs> result) { statistics = *result; });
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
  transport.answer(hex("0000000000000000 00000000 0200 0000 '/d'"));
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
}  // namespace zor::client::test
