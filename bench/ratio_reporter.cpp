#include "ratio_reporter.h"

#include <cstdio>

namespace zor::bench {

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
    const std::string& name = run.run_name.function_name;
    const std::size_t slash = name.rfind('/');
    const std::string work = name.substr(0, slash);
    if (mMedians.find(work) == mMedians.end()) mOrder.push_back(work);
    mMedians[work][name.substr(slash + 1)] = run.GetAdjustedRealTime();
  }
}

void RatioReporter::Finalize() {
  std::printf("\n%-34s %14s %14s %8s\n", "work", "module (us)", "posix (us)", "ratio");
  for (const std::string& work : mOrder) {
    const double module = mMedians[work]["module"] / 1000;
    const double posix = mMedians[work]["posix"] / 1000;
    std::printf("%-34s %14.2f %14.2f %8.2f\n", work.c_str(), module, posix, module / posix);
  }
  std::printf("\nmedians; the ratio is the module's time over that of the bare calls\n");
}

}  // namespace zor::bench
