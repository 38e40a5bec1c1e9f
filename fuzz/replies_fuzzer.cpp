// What a host sends to the client library: answers to every operation, made of
// the request itself and patches to it; and whole streams.
#include <sys/socket.h>

#include "client/disk.h"
#include "client/link.h"
#include "input.h"

namespace zor::fuzz {
namespace {

using namespace client;

std::size_t gOutcomes = 0;  ///< callbacks that ran

// Copies show a sanitizer every byte.
void use(const FileData& data) { EXPECT_LE(Buffer(data.bytes()).size(), 40U); }
void use(const FilePieces& files) {
  for (const wire::Bytes piece : files.pieces) EXPECT_LE(Buffer(piece).size(), 30U);
}
void use(const Listing& listing) {
  for (const wire::DirEntry& entry : listing.entries()) {
    EXPECT_EQ(entry.name.find_first_of(std::string_view("/\0", 2)), entry.name.npos);
  }
}
void use(const DirCheck& check) { use(check.fresh); }
void use(const auto&) {}

constexpr auto kUse = [](const auto& result) {
  ++gOutcomes;
  if (result) use(*result);
};

const std::vector<FilePiece> kFiles = {{"/a", 0, 9}, {"/b", 7, 30}};
constexpr char kPath[] = "/dir/file";
constexpr void (*kOperations[])(Disk&) = {
    [](Disk& d) { d.attributes(kPath, kUse); },
    [](Disk& d) { d.list(kPath, kUse); },
    [](Disk& d) { d.checkDir(kPath, Listing(), kUse); },
    [](Disk& d) { d.read(kPath, 5, 40, kUse); },
    [](Disk& d) { d.readSmallFiles(kFiles, kUse); },
    [](Disk& d) { d.statfs(kPath, kUse); },
    [](Disk& d) { d.xattr(kPath, "user.name", kUse); },
    [](Disk& d) { d.create(kPath, 0644, kUse); },
    [](Disk& d) { d.write(kPath, 3, Buffer("contents"), kUse); },
    [](Disk& d) { d.rename(kPath, "/to", kUse); }};

/// Answers every request at once, out of the input.
struct Answers final : Transport {
  explicit Answers(Input& input) : mInput(input) {}

  void submit(OutgoingRequest request, Completion done) override {
    const std::uint8_t how = mInput.byte();
    Buffer reply;
    if (how < 224) {  // the request's own bytes, some of them changed, and something behind them
      reply.append(request.payload.bytes());
      for (unsigned patches = how % 8; patches > 0; --patches) {
        const std::size_t at = mInput.byte() % reply.size();
        reply.data()[at] = std::byte{mInput.byte()};
      }
    }
    reply.append(std::as_bytes(std::span(mInput.take(mInput.word()))));
    // Memory of exactly its size, so that a sanitizer sees what is read behind it.
    done(Buffer(reply.bytes()));
  }
  void submitFenced(OutgoingRequest request, Completion done, OutgoingRequest) override {
    submit(std::move(request), std::move(done));
  }
  void post(std::function<void()> task) override { task(); }
  Input& mInput;
};

// A whole connection: the first half of the stream comes before the requests.
void converse(Input& input) {
  int ends[2] = {};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const UniqueFd host(ends[0]);
  const auto say = [&](auto s) { (void)::send(host.get(), s.data(), s.size(), MSG_NOSIGNAL); };
  const unsigned operation = input.byte();
  Link link{UniqueFd(ends[1]), {}};
  Disk disk(link);
  say(input.take(input.byte()));
  if (input.rest.empty()) ::shutdown(host.get(), SHUT_WR);
  // A greeting that is none is given up soon, one that is cut off at once.
  (void)link.waitForAnnouncement(std::chrono::milliseconds(input.rest.empty() ? 20'000 : 5));
  for (unsigned i = 0; i < 4; ++i) kOperations[(operation + i) % std::size(kOperations)](disk);
  say(input.take(0x8000));
  ::shutdown(host.get(), SHUT_WR);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{view(data, size)};
  if (input.byte() >= 192) {
    converse(input);
    EXPECT_EQ(std::exchange(gOutcomes, 0), 4U);
    return 0;
  }
  Answers answers(input);
  Disk disk(answers);
  while (!input.rest.empty()) {
    kOperations[input.byte() % std::size(kOperations)](disk);
    EXPECT_EQ(std::exchange(gOutcomes, 0), 1U);
  }
  return 0;
}

}  // namespace zor::fuzz
