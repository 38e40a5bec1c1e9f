// Prints, for every piece of work, the time of the module beside the time of
// the bare system calls.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace zor::bench {

/// Benchmarks are named WORK/module and WORK/posix; medians are compared.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

 private:
  std::vector<std::string> mOrder;
  std::map<std::string, std::map<std::string, double>> mMedians;  // nanoseconds
};

}  // namespace zor::bench
