// orvexctl dp: what the daemon's differential-privacy recorder keeps, read from its directory
// without the daemon. Only counts and sizes are shown: the reports are noise to anyone who reads
// one, and keys are known only by their digests.
#include <iostream>

#include "orvexd/platform/clock.h"
#include "orvexd/platform/dp_string_recorder.h"
#include "orvexd/platform/file_manager.h"
#include "tools/orvexctl/orvexctl.h"

namespace orvex::ctl {

int runDp(const Options& options) {
  const SystemClock clock;
  const DPStringRecorder recorder(
      std::make_shared<FileManager>(DirectoryEnvironment::fromProcess()), clock);
  const auto summaries = recorder.summaries();
  // Today's budget from the same reading of the files as the list.
  size_t reportsToday = 0;
  for (const auto& summary : summaries) reportsToday += summary.reportsToday;
  const double spent = static_cast<double>(reportsToday) * recorder.parameters().epsilon;
  const double budget =
      static_cast<double>(DPStringRecorder::kMaxReportsPerDay) * recorder.parameters().epsilon;
  if (options.json) {
    nlohmann::json keys = nlohmann::json::array();
    for (const auto& summary : summaries) {
      keys.push_back({{"key", summary.keyDigest},
                      {"reports", summary.reportCount},
                      {"today", summary.reportsToday},
                      {"bytes", summary.bytes}});
    }
    printJson({{"directory", recorder.directory().string()},
               {"keys", keys},
               {"epsilonSpentToday", spent},
               {"epsilonPerDay", budget}});
    return kExitOk;
  }
  std::cout << "reports in " << recorder.directory().string() << "\n";
  size_t total = 0;
  for (const auto& summary : summaries) {
    std::cout << "  " << summary.keyDigest << "  " << summary.reportCount << " reports ("
              << summary.reportsToday << " today), " << summary.bytes << " bytes\n";
    total += summary.reportCount;
  }
  std::cout << summaries.size() << " keys, " << total << " reports\n"
            << "privacy budget spent today: epsilon " << spent << " of " << budget << "\n";
  return kExitOk;
}

}  // namespace orvex::ctl
