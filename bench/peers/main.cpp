// The host beside its peer and beside the bare system calls: the same works,
// in turns. Prints the results as JSON.
#include <json/json.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "side.h"
#include "support/standard_descriptors.h"

namespace zor::bench {
namespace {

volatile sig_atomic_t gStopped = 0;

struct Options {
  Programs programs;
  std::filesystem::path directory = std::filesystem::temp_directory_path();
  std::vector<std::string> works;
  int rounds = 7;
  double seconds = 0.4;
  double memorySeconds = 0.2;
};

class Bench {
 public:
  explicit Bench(const Options& options) : mOptions(options), mTree(options.directory) {
    mSides.push_back(makeUdiskSide(options.programs, mTree));
    mSides.push_back(makeSftpSide(options.programs, mTree));
    mSides.push_back(makePosixSide(mTree));
  }

  Json::Value run() {
    Json::Value results;
    results["rounds"] = mOptions.rounds;
    results["seconds"] = mOptions.seconds;
    for (const auto& side : mSides) results["sides"].append(std::string(side->name()));
    for (const WorkTraits& work : kWorks) {
      if (wanted(work)) results["works"].append(measure(work));
    }
    mSides.clear();
    for (const WorkTraits& work : kWorks) {
      if (wanted(work)) results["memory"].append(memory(work));
    }
    return results;
  }

 private:
  bool wanted(const WorkTraits& work) const {
    const auto& keys = mOptions.works;
    return keys.empty() || std::find(keys.begin(), keys.end(), work.key) != keys.end();
  }

  static void note(const std::string& text) {
    if (gStopped != 0) throw std::runtime_error("stopped");
    std::cerr << "# " << text << std::endl;
  }

  Json::Value measure(const WorkTraits& work) {
    note(std::string(work.key));
    Json::Value result;
    result["key"] = std::string(work.key);
    result["unit"] = std::string(work.unit);
    for (const auto& side : mSides) check(*side, work);
    for (int round = 0; round < mOptions.rounds; ++round) {
      for (const auto& side : mSides) {
        if (gStopped != 0) throw std::runtime_error("stopped");
        Json::Value& sums = result["sides"][std::string(side->name())];
        measureOnce(*side, work, sums);
      }
    }
    return result;
  }

  void measureOnce(Side& side, const WorkTraits& work, Json::Value& sums) const {
    const auto processor = [&] {
      return side.server() != nullptr ? side.server()->processorTime() : 0.0;
    };
    const double used = processor();
    const auto start = Until::Clock::now();
    const double units =
        side.run(work, Until::time(std::chrono::duration<double>(mOptions.seconds)), false);
    const std::chrono::duration<double> taken = Until::Clock::now() - start;
    sums["rates"].append(units / taken.count());
    if (side.server() != nullptr) sums["processor_us"].append((processor() - used) * 1e6 / units);
  }

  void check(Side& side, const WorkTraits& work) const {
    try {
      side.run(work, Until::items(work.checkItems), true);
      if (work.work == Work::kWrite) checkWritten(side, work.size, work.size);
      if (work.work == Work::kWriteChunks) checkWritten(side, work.size, kChunkDistance);
    } catch (const std::exception& error) {
      throw std::runtime_error(std::string(side.name()) + ", " + std::string(work.key) + ": " +
                               error.what());
    }
  }

  void checkWritten(const Side& side, std::uint32_t size, std::uint64_t distance) const {
    const std::filesystem::path path = mTree.root() / Tree::kWrittenName;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rbe"),
                                                               std::fclose);
    std::vector<std::byte> piece(size);
    expect(file != nullptr, "the written file");
    for (std::uint64_t at = 0; at < kBigSize; at += distance) {
      const bool read = std::fseek(file.get(), static_cast<long>(at), SEEK_SET) == 0 &&
                        std::fread(piece.data(), 1, size, file.get()) == size;
      expect(read, "the length of the written file");
      expectContents(piece, side.writtenSeed(), 0, size);
    }
  }

  /// With servers of their own, whose memory nothing else has touched.
  Json::Value memory(const WorkTraits& work) const {
    note("memory, " + std::string(work.key));
    Json::Value result;
    result["key"] = std::string(work.key);
    for (const auto make : {makeUdiskSide, makeSftpSide}) {
      const std::unique_ptr<Side> side = make(mOptions.programs, mTree);
      Json::Value& of = result["sides"][std::string(side->name())];
      const Memory rest = side->server()->memory();
      side->server()->resetPeak();
      side->run(work, Until::time(std::chrono::duration<double>(mOptions.memorySeconds)), false);
      const Memory after = side->server()->memory();
      of["rest_kib"] = Json::UInt64(rest.resident);
      of["rest_anonymous_kib"] = Json::UInt64(rest.anonymous);
      of["peak_kib"] = Json::UInt64(after.peak);
      of["after_kib"] = Json::UInt64(after.resident);
      of["after_anonymous_kib"] = Json::UInt64(after.anonymous);
    }
    return result;
  }

  const Options& mOptions;
  Tree mTree;
  std::vector<std::unique_ptr<Side>> mSides;
};

}  // namespace
}  // namespace zor::bench

int main(int argc, char** argv) {
  zor::fillStandardDescriptors();
  using namespace zor::bench;
  Options options;
  CLI::App app{"Measures the host beside its peer and beside the bare system calls"};
  app.add_option("--host", options.programs.host, "The program udisk-host")->required();
  app.add_option("--sftp-server", options.programs.sftpServer, "The peer's program")->required();
  app.add_option("--directory", options.directory, "Where the files are made; needs 600 MiB")
      ->capture_default_str();
  app.add_option("--rounds", options.rounds)->check(CLI::PositiveNumber)->capture_default_str();
  app.add_option("--seconds", options.seconds, "Of each measurement")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  std::vector<std::string> keys;
  for (const WorkTraits& work : kWorks) keys.emplace_back(work.key);
  app.add_option("--works", options.works, "Only these")
      ->delimiter(',')
      ->check(CLI::IsMember(keys));
  CLI11_PARSE(app, argc, argv);
  for (const int number : {SIGINT, SIGTERM}) {
    struct sigaction action {};
    action.sa_handler = [](int) { gStopped = 1; };
    ::sigaction(number, &action, nullptr);
  }
  try {
    std::cout << Bench(options).run() << std::endl;
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "udisk_bench_peers: " << error.what() << std::endl;
    return 1;
  }
}
