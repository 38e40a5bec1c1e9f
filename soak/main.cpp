// udisk-soak: all commands and the drive under random faults, with every answer
// checked, until the time is over or something differs.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <list>
#include <thread>

#include "support/standard_descriptors.h"
#include "workers.h"

namespace zor::soak {
namespace {

using Clock = std::chrono::steady_clock;

volatile std::sig_atomic_t interrupted = 0;

constexpr std::chrono::seconds kStandstill{120};

class Soak {
 public:
  Soak(const fs::path& programs, std::uint64_t seed) : mRig(programs), mSeed(seed) {}

  bool run(std::chrono::seconds time) {
    std::printf("seed %llu, disk faults: %s\n", static_cast<unsigned long long>(mSeed),
                mRig.hasFaults() ? "yes" : "no, they take root");
    printFigures("before");
    start("library", workWithLibrary);
    for (const std::string name : {"one", "two", "three"}) {
      start("drive " + name, [name](Worker& worker) { workOnDrive(worker, name); });
    }
    start("programs", runPrograms);
    start("link faults", disturbLinks);
    start("disk faults", disturbDisk);
    watch(Clock::now() + time);
    mEnding.now = true;
    for (Part& part : mParts) part.thread.join();
    if (mFound) return false;
    printFigures("after");
    const int code = mRig.unmount();
    if (code == 0 || mRig.state.lost) return true;
    std::printf("the mount ended with exit code %d, although nothing was lost\n", code);
    return false;
  }

 private:
  struct Part {
    std::string name;
    Journal journal{};
    Worker worker;
    std::thread thread{};
    std::uint64_t seen = 0;
    Clock::time_point lastMove = Clock::now();
    bool isFault() const { return name.find("faults") != std::string::npos; }
    Part(std::string called, Soak& soak, std::uint64_t seed)
        : name(std::move(called)), worker{soak.mRig, soak.mEnding, journal, Dice(seed)} {}
  };

  void start(const std::string& name, const std::function<void(Worker&)>& work) {
    Part& part = mParts.emplace_back(name, *this, mSeed * 100 + mParts.size());
    part.thread = std::thread([this, &part, work] {
      try {
        work(part.worker);
      } catch (const std::exception& error) {
        found(part, error.what());
      }
    });
  }

  void found(const Part& part, const std::string& what) {
    const MutexLock lock(mMutex);
    if (std::exchange(mFound, true)) return;
    mEnding.now = true;
    const std::string all = fs::temp_directory_path() / ("soak-" + std::to_string(mSeed) + ".log");
    std::printf("\nDIFFERENCE (%s, seed %llu): %s\nthe last steps; all of them are in %s:\n%s",
                part.name.c_str(), static_cast<unsigned long long>(mSeed), what.c_str(),
                all.c_str(), part.journal.text(40).c_str());
    std::ofstream log(all);
    log << "mount's last words:\n" << mRig.mountWords();
    for (const Part& other : mParts) {
      log << other.name << ":\n" << other.journal.text();
      if (other.isFault())
        std::printf("%s:\n%s", other.name.c_str(), other.journal.text(10).c_str());
    }
    std::fflush(stdout);
  }

  void watch(Clock::time_point end) {
    const bool person = ::isatty(STDOUT_FILENO) != 0;
    Clock::time_point nextLine = Clock::now();
    while (!mEnding.now && Clock::now() < end && interrupted == 0) {
      if (Clock::now() >= nextLine) {
        printProgress(end, person);
        nextLine = Clock::now() + std::chrono::seconds(person ? 1 : 60);
      }
      for (Part& part : mParts) expectMoving(part);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    printProgress(end, person);
    if (person) std::printf("\n");
  }

  /// A worker that waits for something that never comes cannot be joined either.
  void expectMoving(Part& part) {
    if (std::exchange(part.seen, part.journal.count()) != part.journal.count()) {
      part.lastMove = Clock::now();
    }
    if (part.isFault() || Clock::now() - part.lastMove < kStandstill) return;
    found(part, "it stands still");
    mRig.abandon();
    std::_Exit(1);
  }

  void printProgress(Clock::time_point end, bool person) {
    const auto left = std::chrono::duration_cast<std::chrono::seconds>(end - Clock::now()).count();
    std::string line = std::to_string(std::max<long long>(0, left)) + " s left";
    for (const Part& part : mParts) {
      line += ", " + part.name + " " + std::to_string(part.journal.count());
    }
    std::printf(person ? "\r%s\033[K" : "%s\n", line.c_str());
    std::fflush(stdout);
  }

  void printFigures(const char* when) const {
    std::printf("%s: library's host  %s\n%s: drive's host    %s\n%s: mount           %s\n", when,
                mRig.libraryPart.figures().c_str(), when, mRig.drivePart.figures().c_str(), when,
                mRig.mountFigures().c_str());
  }

  DiskRig mRig;
  const std::uint64_t mSeed;
  Ending mEnding;
  Mutex mMutex;
  bool mFound GUARDED_BY(mMutex) = false;
  std::list<Part> mParts;
};

int main(int argc, char** argv) {
  double minutes = 20;
  std::uint64_t seed = std::random_device()();
  fs::path programs = fs::read_symlink("/proc/self/exe").parent_path();
  CLI::App app("Works on a served disk under random faults and checks every answer");
  app.add_option("--minutes", minutes, "How long")->capture_default_str();
  app.add_option("--seed", seed, "Of an earlier run, for the same steps and faults");
  app.add_option("--bin", programs, "Where udisk-host and udisk-mount are");
  CLI11_PARSE(app, argc, argv);
  for (const int signal : {SIGINT, SIGTERM}) std::signal(signal, [](int) { interrupted = 1; });
  std::signal(SIGPIPE, SIG_IGN);
  try {
    Soak soak(programs, seed);
    const bool good = soak.run(std::chrono::seconds(static_cast<long>(minutes * 60)));
    std::printf(good ? "no difference\n" : "failed\n");
    return good ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "udisk-soak: %s\n", error.what());
    return 1;
  }
}

}  // namespace
}  // namespace zor::soak

int main(int argc, char** argv) {
  zor::fillStandardDescriptors();
  return zor::soak::main(argc, argv);
}
