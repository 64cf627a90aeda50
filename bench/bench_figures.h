// What the D-Bus benchmarks share: the daemon's bag for them, the figures of a run and what the
// daemon's threads used meanwhile.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace orvex::bench {

// The back-end's bag: enabled, searches at its "/search".
inline constexpr char kSearchBag[] =
    R"({"version": "1", "enabled": true, "search_url": "${BASE_URL}/search"})";

struct Figures {
  double median;
  double p90;
};

inline Figures figures(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return {samples[samples.size() / 2], samples[samples.size() * 9 / 10]};
}

// What all the process's threads have used so far: context switches, and CPU time in
// microseconds (from the scheduler's statistics); in all and by thread name (threads of one
// name, the workers say, are added up).
struct ThreadUse {
  struct Figures {
    long switches = 0;
    double cpuMicroseconds = 0;
  };
  long switches = 0;
  double cpuMicroseconds = 0;
  std::map<std::string, Figures> byName;
};
inline ThreadUse threadUse(pid_t pid) {
  ThreadUse use;
  const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    ThreadUse::Figures figures;
    std::ifstream status(task.path() / "status");
    std::string name;
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("Name:")) {
        name = line.substr(line.find_first_not_of(" \t", 5));
      } else if (line.find("ctxt_switches:") != std::string::npos) {
        figures.switches += std::stol(line.substr(line.find(':') + 1));
      }
    }
    double runNanoseconds = 0;
    std::ifstream(task.path() / "schedstat") >> runNanoseconds;
    figures.cpuMicroseconds = runNanoseconds / 1000;
    use.switches += figures.switches;
    use.cpuMicroseconds += figures.cpuMicroseconds;
    auto& named = use.byName[name];
    named.switches += figures.switches;
    named.cpuMicroseconds += figures.cpuMicroseconds;
  }
  return use;
}

}  // namespace orvex::bench
