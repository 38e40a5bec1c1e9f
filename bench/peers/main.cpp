// One side of the comparison. measure.py starts the servers and passes connected sockets.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "side.h"
#include "support/standard_descriptors.h"

namespace zor::bench {

void expect(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string(what) + " is not what it should be");
}

Side::Side(int root, unsigned seed) : mRoot(root), mData(kMiB) {
  for (unsigned i = 0; i < kFiles; ++i) {
    mFiles.push_back(std::string(kFilesName) + "/file" + std::to_string(10'000 + i).substr(1));
  }
  const UniqueFd big(::openat(mRoot, kBigName.data(), O_RDONLY | O_CLOEXEC));
  const ssize_t got = ::pread(big.get(), mData.data(), kMiB, static_cast<off_t>(seed * kMiB));
  expect(got == static_cast<ssize_t>(kMiB), "the big file");
}

void Side::expectContents(wire::Bytes data, std::string_view name, std::uint64_t offset) const {
  std::vector<std::byte> right(data.size());
  const UniqueFd file(::openat(mRoot, std::string(name).c_str(), O_RDONLY | O_CLOEXEC));
  const ssize_t got = ::pread(file.get(), right.data(), right.size(), static_cast<off_t>(offset));
  expect(got == std::ssize(data) && std::memcmp(right.data(), data.data(), data.size()) == 0,
         "the contents of a file");
}

namespace {

std::unique_ptr<Side> makeSide(const std::string& name, int root, int socket) {
  if (name == "udisk") return makeUdiskSide(root, UniqueFd(socket));
  if (name == "peer") return makeSftpSide(root, UniqueFd(socket));
  return makePosixSide(root);
}

/// Each line asks for a work: its name, how many items are in flight, their size, and the
/// seconds, or the items of a check. The answer is the units done and the seconds taken.
void serve(Side& side) {
  static const std::map<std::string, double (Side::*)(const Run&)> kWorks{
      {"attributes", &Side::attributes}, {"files", &Side::wholeFiles},
      {"batches", &Side::batches},       {"reads", &Side::reads},
      {"writes", &Side::writes},         {"chunks", &Side::chunks},
      {"listings", &Side::listings},     {"unchanged", &Side::unchanged}};
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string work;
    Run run{1, 0, Until::items(1), false};
    double seconds = 0;
    std::uint64_t items = 0;
    words >> work >> run.inFlight >> run.size >> seconds >> items;
    run.checked = items != 0;
    run.until =
        items != 0 ? Until::items(items) : Until::time(std::chrono::duration<double>(seconds));
    const auto start = Until::Clock::now();
    const double units = (side.*kWorks.at(work))(run);
    const std::chrono::duration<double> taken = Until::Clock::now() - start;
    std::cout << units << ' ' << taken.count() << std::endl;
  }
}

}  // namespace
}  // namespace zor::bench

int main(int argc, char** argv) {
  zor::fillStandardDescriptors();
  if (argc != 4) {
    std::cerr << "usage: udisk_bench_peers udisk|peer|posix DIRECTORY DESCRIPTOR\n";
    return 2;
  }
  try {
    std::cout.precision(12);
    const zor::UniqueFd root(::open(argv[2], O_PATH | O_DIRECTORY | O_CLOEXEC));
    zor::bench::serve(*zor::bench::makeSide(argv[1], root.get(), std::stoi(argv[3])));
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "udisk_bench_peers, " << argv[1] << ": " << error.what() << std::endl;
    return 1;
  }
}
