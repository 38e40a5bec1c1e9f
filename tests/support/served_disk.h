// A directory served by a running udisk-host.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>

#include "support/process.h"
#include "support/temporary_directory.h"

namespace zor::test {

namespace fs = std::filesystem;

class ServedDisk {
 public:
  ServedDisk() {
    fs::create_directory(mDirectory / "disk");
    serve();
  }
  ~ServedDisk() {
    stop(SIGTERM);
    if (::testing::Test::HasFailure()) {
      std::fprintf(stderr, "the host:\n%.4000s\n", client::test::readFile(log()).c_str());
    }
  }

  fs::path operator/(const std::string& name) const { return mDirectory / ("disk/" + name); }
  fs::path root() const { return mDirectory / "disk"; }
  std::string socket() const { return mDirectory / "socket"; }
  /// A name beside the disk.
  fs::path beside(const std::string& name) const { return mDirectory / name; }

  void serve(const Arguments& more = {}) {
    Arguments arguments{HOST_PROGRAM, "serve", root().string(), "--socket", socket()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    mHost = spawn(arguments, "/dev/null", log());
    EXPECT_TRUE(eventually(
        [this] { return client::test::readFile(log()).find("serving") != std::string::npos; }));
  }
  void stop(int signal) {
    if (mHost <= 0) return;
    ::kill(mHost, signal);
    waitFor(mHost);
    mHost = -1;
  }
  /// After SIGSTOP the host has stopped with all its threads.
  void signal(int number) const {
    ::kill(mHost, number);
    if (number == SIGSTOP) ::waitpid(mHost, nullptr, WUNTRACED);
  }

 private:
  std::string log() const { return mDirectory / "log"; }

  client::test::TemporaryDirectory mDirectory;
  pid_t mHost = -1;
};

}  // namespace zor::test
