// The daemon's resident memory while a front-end searches with feedback on: a hundred queries
// over and over against the reference back-end (most answered from the query cache), and for
// each search the client reports its start, its network request and the results it showed, as a
// search screen does. Prints the daemon's VmRSS every 10 000 searches (two seconds after the
// last record, so that the daemon has written what it was sent), then once more after one
// Feedback call, which reads the open session back, and the session files and bytes on disk.
//
//   orvex_bench_session_memory [searches]      (default 50 000)
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench/search_session_records.h"
#include "tests/support/daemon_harness.h"

using namespace orvex;

namespace {

// The VmRSS line of /proc/<pid>/status, in kB; -1 when it cannot be read.
long residentKilobytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  const int searches = argc > 1 ? std::atoi(argv[1]) : 50000;
  testing::DaemonHarness harness(R"({"version": "1", "enabled": true, "feedback_enabled": true,
                                     "search_url": "${BASE_URL}/search"})");
  harness.logLevel = "error";
  harness.start();
  auto client = harness.clientWithBag({"com.zelmor.glance", "Glance/1"});
  const pid_t pid = harness.daemon()->pid();
  std::printf("searches %6d  VmRSS %6ld kB\n", 0, residentKilobytes(pid));

  for (int i = 1; i <= searches; ++i) {
    const auto start = bench::searchStart(i);
    ORVRequest request;
    request.queryId = i;
    // A hundred queries over and over, as a user retypes: most are answered from the cache.
    request.queryString = "weather in par" + std::to_string(i % 100);
    request.keyboardInputMode = "en_US";
    request.scale = 2;
    if (!client->request(request)) {
      std::fprintf(stderr, "search %d failed\n", i);
      return 1;
    }
    (void)client->reportEvent("searchStarted", i, *start);
    (void)client->reportEvent("networkSearchStarted", i, *bench::networkRequest(*start, i));
    (void)client->reportEvent("resultsVisible", i, *bench::visibleResults(i));
    if (i % 10000 == 0 || i == searches) {
      (void)client->ping();
      sleep(2);
      std::printf("searches %6d  VmRSS %6ld kB\n", i, residentKilobytes(pid));
    }
  }
  const auto answer = client->feedback();
  std::printf("after Feedback (%zu bytes)  VmRSS %6ld kB\n", answer ? answer.value().size() : 0,
              residentKilobytes(pid));
  uintmax_t files = 0, bytes = 0;
  std::error_code error;
  for (const auto& entry :
       std::filesystem::directory_iterator(harness.cacheDirectory() / "com.zelmor.orvexd", error)) {
    if (entry.path().filename().string().rfind("session.", 0) != 0) continue;
    ++files;
    bytes += entry.file_size(error);
  }
  std::printf("session files %ju, %ju bytes\n", files, bytes);
  return 0;
}
