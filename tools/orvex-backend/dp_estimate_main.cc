// orvex-dp-estimate: the collector's side of the daemon's differential-privacy reports.
//
// Reads the report file of one key from each given directory (a device's
// $XDG_CACHE_HOME/com.zelmor.orvexd/dp/, or a directory of files collected from devices and
// named like them), pools the reports, and prints for each candidate string (one per line of the
// candidates file) its estimated count with the estimate's standard deviation, most frequent
// first. Nothing in a report says which string it came from: only candidates can be counted.
//
// Usage: orvex-dp-estimate --key KEY --candidates FILE DIRECTORY...
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "orvexd/platform/count_mean_sketch.h"
#include "orvexd/platform/dp_string_recorder.h"

namespace {

constexpr size_t kMaxCandidates = 100000;
constexpr size_t kMaxFileBytes = size_t{64} << 20;

int usage(const char* program) {
  std::fprintf(stderr, "usage: %s --key KEY --candidates FILE DIRECTORY...\n", program);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace orvex;
  std::string key;
  std::string candidatesFile;
  std::vector<std::string> directories;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--key") == 0 && i + 1 < argc) {
      key = argv[++i];
    } else if (std::strcmp(argv[i], "--candidates") == 0 && i + 1 < argc) {
      candidatesFile = argv[++i];
    } else if (argv[i][0] == '-') {
      return usage(argv[0]);
    } else {
      directories.emplace_back(argv[i]);
    }
  }
  if (key.empty() || candidatesFile.empty() || directories.empty()) return usage(argv[0]);

  std::ifstream candidatesIn(candidatesFile);
  if (!candidatesIn) {
    std::fprintf(stderr, "cannot read %s\n", candidatesFile.c_str());
    return 1;
  }
  std::vector<std::string> candidates;
  for (std::string line; std::getline(candidatesIn, line) && candidates.size() < kMaxCandidates;) {
    if (!line.empty()) candidates.push_back(line);
  }

  const CountMeanSketchParameters parameters;
  CountMeanSketchEstimator estimator(parameters);
  const std::string fileName = DPStringRecorder::keyDigest(key) + ".cms";
  size_t files = 0;
  for (const auto& directory : directories) {
    std::ifstream in(directory + "/" + fileName, std::ios::binary);
    if (!in) continue;
    std::vector<uint8_t> bytes;
    bytes.reserve(4096);
    for (std::istreambuf_iterator<char> it(in), end; it != end && bytes.size() <= kMaxFileBytes;
         ++it) {
      bytes.push_back(static_cast<uint8_t>(*it));
    }
    const auto reports = DPStringRecorder::decodeReportFile(bytes, parameters);
    if (!reports) {
      std::fprintf(stderr, "skipping %s/%s: not a report file\n", directory.c_str(),
                   fileName.c_str());
      continue;
    }
    ++files;
    for (const auto& stored : *reports) estimator.add(stored.report);
  }
  std::printf("key %s: %zu reports from %zu files\n", key.c_str(), estimator.reportCount(), files);

  struct Row {
    std::string text;
    double estimate;
  };
  std::vector<Row> rows;
  rows.reserve(candidates.size());
  for (auto& candidate : candidates) {
    rows.push_back({std::move(candidate), 0});
    rows.back().estimate = estimator.estimate(rows.back().text);
  }
  std::sort(rows.begin(), rows.end(),
            [](const Row& a, const Row& b) { return a.estimate > b.estimate; });
  for (const auto& row : rows) {
    std::printf("%10.1f ± %.1f  %s\n", row.estimate,
                estimator.standardDeviation(std::max(0.0, row.estimate)), row.text.c_str());
  }
  return 0;
}
