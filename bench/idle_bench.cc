// The daemon at rest: after one search against the reference back-end, the context switches of
// all its threads over an idle period, its thread count, and its private (USS) and proportional
// (PSS) memory from /proc/PID/smaps_rollup, three ways:
// - beside a second daemon of the same build, idle after a search of its own, as it would be
//   beside other processes that map the same libraries: each page both map counts half to PSS
//   and not at all to USS;
// - alone, once that second daemon has stopped: every page of its binary and libraries that no
//   other process maps counts as its own;
// - then, with the daemon stopped too, the same figures of orvex_bench_library_floor loaded with
//   the libraries the daemon had mapped: what those libraries cost any process, so that the
//   daemon's own part is the difference.
//
// Usage: orvex_bench_idle [seconds]   (default 30)
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

#include "bench/bench_figures.h"
#include "tests/support/daemon_harness.h"
#include "tests/support/thread_stats.h"

using namespace orvex;

namespace {

struct Memory {
  double uss = 0;
  double pss = 0;
  double written = 0;  // Private_Dirty, the written part of the USS
};

// Private_Dirty is the written part of the USS; the rest are file pages (code, read-only data)
// that no other process maps at the moment, and that count as shared once one does.
Memory memoryOf(pid_t pid) {
  const std::string rollup = "/proc/" + std::to_string(pid) + "/smaps_rollup";
  Memory memory;
  memory.written = static_cast<double>(testing::procField(rollup, "Private_Dirty:")) / 1024;
  memory.uss =
      memory.written + static_cast<double>(testing::procField(rollup, "Private_Clean:")) / 1024;
  memory.pss = static_cast<double>(testing::procField(rollup, "Pss:")) / 1024;
  return memory;
}

// The shared libraries `pid` has mapped, in the order they appear.
std::vector<std::string> librariesOf(pid_t pid) {
  std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
  std::vector<std::string> libraries;
  std::string line;
  while (std::getline(maps, line)) {
    const size_t slash = line.find('/');
    if (slash == std::string::npos) continue;
    std::string path = line.substr(slash);
    if (path.find(".so") == std::string::npos) continue;
    if (std::find(libraries.begin(), libraries.end(), path) == libraries.end()) {
      libraries.push_back(std::move(path));
    }
  }
  return libraries;
}

// The floor process's memory once it has loaded `libraries` and fetched `url`, and is at rest.
std::optional<Memory> libraryFloor(const std::string& url,
                                   const std::vector<std::string>& libraries,
                                   const std::filesystem::path& output) {
  std::vector<std::string> argv = {ORVEX_LIBRARY_FLOOR_BINARY, url};
  argv.insert(argv.end(), libraries.begin(), libraries.end());
  testing::ChildProcess floor(argv, {}, output);
  const bool ready = testing::eventually(
      [&] {
        std::ifstream in(output);
        std::string word;
        return (in >> word) && word == "ready";
      },
      std::chrono::seconds(10));
  if (!ready) return std::nullopt;
  std::this_thread::sleep_for(std::chrono::seconds(1));
  return memoryOf(floor.pid());
}

struct MappingUse {
  int64_t privateKiB = 0;
  int64_t dirtyKiB = 0;
  int64_t pssKiB = 0;
};

// Private and proportional memory per mapped file (anonymous mappings under their bracketed
// names or "[anonymous]"), read from /proc/PID/smaps, largest private first.
std::vector<std::pair<std::string, MappingUse>> memoryByMapping(pid_t pid) {
  std::ifstream smaps("/proc/" + std::to_string(pid) + "/smaps");
  std::map<std::string, MappingUse> uses;
  std::string line;
  std::string current = "[anonymous]";
  while (std::getline(smaps, line)) {
    std::istringstream fields(line);
    std::string first;
    fields >> first;
    if (first.empty()) continue;
    if (first.back() != ':') {
      // A mapping header: range, permissions, offset, device, inode, then the optional path.
      std::string skip;
      for (int i = 0; i < 4; ++i) fields >> skip;
      std::string path;
      std::getline(fields >> std::ws, path);
      current = path.empty() ? "[anonymous]" : path;
      continue;
    }
    int64_t kib = 0;
    fields >> kib;
    if (first == "Private_Clean:" || first == "Private_Dirty:") uses[current].privateKiB += kib;
    if (first == "Private_Dirty:") uses[current].dirtyKiB += kib;
    if (first == "Pss:") uses[current].pssKiB += kib;
  }
  std::vector<std::pair<std::string, MappingUse>> sorted(uses.begin(), uses.end());
  std::sort(sorted.begin(), sorted.end(),
            [](const auto& a, const auto& b) { return a.second.privateKiB > b.second.privateKiB; });
  return sorted;
}

// Starts the daemon quiet and makes one search through a client of it; the client, which keeps
// the daemon's session open, or nothing when the search fails.
std::unique_ptr<OrvexClient> startAndSearch(testing::DaemonHarness& harness) {
  harness.logLevel = "error";
  harness.start();
  auto client = harness.clientWithBag({"com.zelmor.bench", "Bench/1"});
  auto answer = client->request(testing::searchRequest(1, "weath"));
  if (!answer || !answer.value().reply) return nullptr;
  return client;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 30;
  // Pages of a binary the linker has just written stay dirty in the page cache until they reach
  // the disk, and count as written memory of every process that maps them: flush them first.
  ::sync();
  testing::DaemonHarness harness(bench::kSearchBag);
  auto twin = std::make_unique<testing::DaemonHarness>(bench::kSearchBag);
  // The clients stay connected while the daemons idle, as front-ends do.
  const auto client = startAndSearch(harness);
  auto twinClient = startAndSearch(*twin);
  if (!client || !twinClient) {
    std::fprintf(stderr, "the search failed\n");
    return 1;
  }
  const pid_t pid = harness.daemon()->pid();
  // The reply is out before the search's own bookkeeping ends; a second lets it finish.
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const auto before = testing::threadSwitches(pid);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const auto after = testing::threadSwitches(pid);

  std::string wakers;
  const double perSecond =
      static_cast<double>(testing::switchesBetween(before, after, &wakers)) / seconds;
  const Memory besideTwin = memoryOf(pid);
  // Its bus and back-end go too: they map libraries the daemon maps.
  twinClient.reset();
  twin.reset();
  const Memory daemon = memoryOf(pid);
  const auto mappings = memoryByMapping(pid);
  const auto libraries = librariesOf(pid);
  // The daemon must be gone before the floor is measured: pages both map would count as shared.
  (void)harness.stop();
  const auto floor = libraryFloor(harness.backend().baseUrl() + "/", libraries,
                                  harness.directory() / "library-floor.log");

  std::printf("idle %d s after a search: %.2f context switches/s; who woke: %s\n", seconds,
              perSecond, wakers.c_str());
  std::printf("threads:");
  for (const auto& [tid, thread] : after) std::printf(" %s", thread.name.c_str());
  std::printf(
      "\nUSS %.2f MiB (%.2f MiB written, the rest file pages no other process maps now), "
      "PSS %.2f MiB\n",
      daemon.uss, daemon.written, daemon.pss);
  std::printf("largest users (private, of it written, proportional; KiB):\n");
  for (size_t i = 0; i < mappings.size() && i < 16; ++i) {
    const MappingUse& use = mappings[i].second;
    std::printf("  %6lld %6lld %6lld  %s\n", static_cast<long long>(use.privateKiB),
                static_cast<long long>(use.dirtyKiB), static_cast<long long>(use.pssKiB),
                mappings[i].first.c_str());
  }
  std::printf("FIGURE idle_wakeups_per_s %.2f /s\n", perSecond);
  std::printf("FIGURE idle_threads %zu n\n", after.size());
  std::printf("FIGURE idle_uss_mib %.2f MiB\n", daemon.uss);
  std::printf("FIGURE idle_pss_mib %.2f MiB\n", daemon.pss);
  std::printf("FIGURE idle_written_mib %.2f MiB\n", daemon.written);
  std::printf("FIGURE idle_uss_beside_twin_mib %.2f MiB\n", besideTwin.uss);
  std::printf("FIGURE idle_pss_beside_twin_mib %.2f MiB\n", besideTwin.pss);
  if (!floor) {
    std::fprintf(stderr, "the library floor process did not get ready\n");
    return 1;
  }
  std::printf(
      "the %zu libraries alone, loaded and used for one GET by a process that does nothing "
      "else: USS %.2f MiB (%.2f MiB written), PSS %.2f MiB\n",
      libraries.size(), floor->uss, floor->written, floor->pss);
  std::printf("FIGURE idle_library_floor_uss_mib %.2f MiB\n", floor->uss);
  std::printf("FIGURE idle_library_floor_pss_mib %.2f MiB\n", floor->pss);
  std::printf("FIGURE idle_uss_less_libraries_mib %.2f MiB\n", daemon.uss - floor->uss);
  std::printf("FIGURE idle_pss_less_libraries_mib %.2f MiB\n", daemon.pss - floor->pss);
  return 0;
}
