// The request path, from a packet in memory to its reply in memory, beside the
// same system calls made directly.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench_disk.h"
#include "protocol/records.h"
#include "ratio_reporter.h"

namespace zor::bench {
namespace {

using wire::Command;

std::unique_ptr<BenchDisk> gDisk;

void pair(const std::string& work, const std::function<void()>& module,
          const std::function<void()>& posix) {
  const auto add = [&](const std::string& side, const std::function<void()>& step) {
    benchmark::RegisterBenchmark((work + "/" + side).c_str(),
                                 [step](benchmark::State& state) {
                                   for (auto _ : state) step();
                                 })
        ->Repetitions(9)
        ->ReportAggregatesOnly(true)
        ->MinTime(0.1);
  };
  add("module", module);
  add("posix", posix);
}

int readWhole(const char* path, char* buffer, std::size_t size, off_t offset) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  const ssize_t count = ::pread(fd, buffer, size, offset);
  ::close(fd);
  return static_cast<int>(count);
}

Prepared readRequest(const std::string& path, std::int64_t offset, std::uint32_t size) {
  const wire::FileReadRecord record{offset, 0, size, static_cast<std::uint32_t>(path.size()), 0};
  return {Command::kFileRead, record, path};
}

void attributeQuery() {
  const std::string path = BenchDisk::fileName(1);
  const auto request = std::make_shared<Prepared>(
      Command::kGetFileAttr, wire::FileAttrRecord{static_cast<std::uint16_t>(path.size()), 0},
      path);
  pair(
      "attribute query", [request] { gDisk->serve(*request); },
      [local = gDisk->local(path)] {
        struct stat status {};
        benchmark::DoNotOptimize(::lstat(local.c_str(), &status));
      });
}

void readSmall() {
  const std::string path = BenchDisk::fileName(2);
  const auto request = std::make_shared<Prepared>(readRequest(path, 0, 4096));
  pair(
      "read of 4 KiB", [request] { gDisk->serve(*request); },
      [local = gDisk->local(path), buffer = std::vector<char>(4096)]() mutable {
        benchmark::DoNotOptimize(readWhole(local.c_str(), buffer.data(), buffer.size(), 0));
      });
}

void readBatch() {
  constexpr int kBatch = 32;
  std::string records;
  std::vector<std::string> paths;
  for (int i = 0; i < kBatch; ++i) {
    const std::string path = BenchDisk::fileName(i);
    const auto record =
        wire::encoded(wire::FileReadRecord{0, 0, 4096, static_cast<std::uint32_t>(path.size()), 0});
    records.append(reinterpret_cast<const char*>(record.data()), record.size()).append(path);
    paths.push_back(gDisk->local(path));
  }
  const auto request =
      std::make_shared<Prepared>(Command::kSmallFileRead, wire::SmallFileRecord{kBatch}, records);
  pair(
      "batch of 32 files of 4 KiB", [request] { gDisk->serve(*request); },
      [paths, buffer = std::vector<char>(4096)]() mutable {
        for (const std::string& path : paths) {
          benchmark::DoNotOptimize(readWhole(path.c_str(), buffer.data(), buffer.size(), 0));
        }
      });
}

void stream() {
  constexpr std::uint32_t kPiece = 64 << 10;
  const auto requests = std::make_shared<std::vector<std::unique_ptr<Prepared>>>();
  for (std::int64_t at = 0; at < BenchDisk::kBigSize; at += kPiece) {
    requests->push_back(std::make_unique<Prepared>(readRequest("/big", at, kPiece)));
  }
  pair(
      "stream of 64 KiB",
      [requests, at = std::size_t{0}]() mutable {
        gDisk->serve(*(*requests)[at++ % requests->size()]);
      },
      [local = gDisk->local("/big"), at = off_t{0}, buffer = std::vector<char>(kPiece)]() mutable {
        benchmark::DoNotOptimize(readWhole(local.c_str(), buffer.data(), buffer.size(), at));
        at = (at + kPiece) % BenchDisk::kBigSize;
      });
}

void write() {
  constexpr std::int32_t kPiece = 64 << 10;
  const std::string path = "/big";
  const std::string data(kPiece, 'y');
  const wire::FileWriteRecord record{0, kPiece, 0, 1, static_cast<std::uint16_t>(path.size()),
                                     0, 0};
  const auto request = std::make_shared<Prepared>(Command::kFileWrite, record, path + data);
  pair(
      "write of 64 KiB", [request] { gDisk->serve(*request); },
      [local = gDisk->local(path), data] {
        const int fd = ::open(local.c_str(), O_WRONLY | O_CLOEXEC);
        benchmark::DoNotOptimize(::pwrite(fd, data.data(), data.size(), 0));
        ::close(fd);
      });
}

void listDirectly(const std::string& local) {
  DIR* directory = ::opendir(local.c_str());
  while (const dirent* entry = ::readdir(directory)) {
    struct stat status {};
    benchmark::DoNotOptimize(
        ::fstatat(::dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW));
  }
  ::closedir(directory);
}

void listing() {
  const std::string path = "/files";
  const wire::DirRecord record{0, 0, static_cast<std::uint16_t>(path.size()), 0};
  const auto request = std::make_shared<Prepared>(Command::kDirRead, record, path);
  pair(
      "listing of 2,000 entries", [request] { gDisk->serve(*request); },
      [local = gDisk->local(path)] { listDirectly(local); });
}

void unchangedCheck() {
  const std::string path = "/many";
  std::uint16_t count = 0;
  const std::string cached = gDisk->listing(path, count);
  const wire::DirRecord record{0, static_cast<std::uint32_t>(cached.size()),
                               static_cast<std::uint16_t>(path.size()), count};
  const auto request = std::make_shared<Prepared>(Command::kCheckDir, record, path + cached);
  pair(
      "unchanged check of 10,000 entries", [request] { gDisk->serve(*request); },
      [local = gDisk->local(path)] { listDirectly(local); });
}

}  // namespace
}  // namespace zor::bench

int main(int argc, char** argv) {
  using namespace zor::bench;
  benchmark::Initialize(&argc, argv);
  gDisk = std::make_unique<BenchDisk>();
  attributeQuery();
  readSmall();
  readBatch();
  stream();
  write();
  listing();
  unchangedCheck();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  gDisk.reset();
  return 0;
}
