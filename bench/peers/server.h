// The processes that serve.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "support/unique_fd.h"

namespace zor::bench {

/// What a process holds in memory, in KiB.
struct Memory {
  std::uint64_t resident = 0;
  std::uint64_t peak = 0;
  std::uint64_t anonymous = 0;  ///< resident, without pages of files
};

/// A child process, ended with this object.
class Server {
 public:
  /// Throws std::system_error. `stream` becomes its standard input and output
  /// when there is one; messages go to the file `log`.
  Server(const std::vector<std::string>& command, const UniqueFd& stream,
         const std::filesystem::path& log);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Processor time of all its threads, in seconds.
  double processorTime() const;

  Memory memory() const;
  /// Lets the peak begin at what is resident now.
  void resetPeak() const;

  /// The log so far, for messages to people.
  std::string log() const;
  bool running() const;

 private:
  std::filesystem::path mLog;
  pid_t mPid = -1;
};

}  // namespace zor::bench
