// Images through the real daemon on a private bus: what an Endpoint.LoadImages round trip costs,
// and what caching images costs the daemon's memory.
//
// First 1 000 images of 50 KiB are prefetched from five search answers (served, with the images,
// by a loopback server; the reference back-end serves the bag). The daemon's VmRSS and RssAnon
// (from /proc/PID/status) are printed before, once they are all cached, and once each has been
// loaded: the cache keeps images as mapped files, so the anonymous memory should not grow with
// their bytes (what loading maps in shows as file-backed pages). Then BM_LoadImages20Cached
// times one LoadImages call for 20 of the cached images (1 MiB answered).
//
//   orvex_bench_image_load [benchmark flags] [image KiB]     (default 50)
//
// Runs with other image sizes tell what of the anonymous memory's growth comes with the images'
// bytes (none should) and what with their number (the index, the fetches' records).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/daemon_harness.h"
#include "tests/support/loopback_http_server.h"

using namespace orvex;
using namespace std::chrono_literals;

namespace {

constexpr int kAnswers = 5;
constexpr int kImagesPerAnswer = 200;
constexpr int kImages = kAnswers * kImagesPerAnswer;

// A line of /proc/<pid>/status ("VmRSS", "RssAnon", "RssFile"), in kB; -1 when unreadable.
long statusKilobytes(pid_t pid, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(name + ":", 0) == 0)
      return std::strtol(line.c_str() + name.size() + 1, nullptr, 10);
  }
  return -1;
}

void printMemory(const char* when, pid_t pid) {
  std::printf("%-34s VmRSS %7ld kB  RssAnon %7ld kB  RssFile %7ld kB\n", when,
              statusKilobytes(pid, "VmRSS"), statusKilobytes(pid, "RssAnon"),
              statusKilobytes(pid, "RssFile"));
}

size_t cachedImageFiles(const testing::DaemonHarness& harness) {
  size_t files = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(
           harness.cacheDirectory() / "com.zelmor.orvexd" / "URLCache", error)) {
    files += entry.path().filename().string().starts_with("img-");
  }
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const size_t imageBytes = (argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 50) * 1024;
  testing::LoopbackHttpServer server;
  const std::string base = server.baseUrl();
  const auto imageUrl = [&base](int i) { return base + "/img?n=" + std::to_string(i); };
  std::atomic<int> answers{0};
  server.handle("GET", "/search", [&](const testing::RecordedRequest&) {
    const int first = answers++ * kImagesPerAnswer;
    nlohmann::json results = nlohmann::json::array();
    for (int i = first; i < first + kImagesPerAnswer && i < kImages; ++i) {
      results.push_back({{"thumbnail", {{"url", imageUrl(i)}}}});
    }
    return testing::LoopbackHttpServer::Response{
        200, nlohmann::json{{"results", results}}.dump(), {}};
  });
  const std::string image(imageBytes, 'i');
  server.handle("GET", "/img", [&image](const testing::RecordedRequest&) {
    return testing::LoopbackHttpServer::Response{200, image, {}};
  });

  testing::DaemonHarness harness(
      R"({"version": "1", "enabled": true, "search_url": ")" + base + R"(/search"})",
      {{"ORVNoQueryCache", PlistValue(true)}});
  harness.logLevel = "error";
  harness.start();
  auto client = harness.clientWithBag({"com.zelmor.bench", "Bench/1"});
  const pid_t pid = harness.daemon()->pid();
  (void)client->loadImages({}, 0ms);
  sleep(1);
  printMemory("started", pid);

  // One answer at a time: the fetcher takes at most 256 fetches under way.
  for (int i = 0; i < kAnswers; ++i) {
    ORVRequest search;
    search.queryId = i + 1;
    search.queryString = "images";
    if (!client->request(search)) return 1;
    const size_t expected = static_cast<size_t>(i + 1) * kImagesPerAnswer;
    if (!testing::eventually([&] { return cachedImageFiles(harness) == expected; }, 120s)) {
      std::fprintf(stderr, "only %zu of %zu images were cached\n", cachedImageFiles(harness),
                   expected);
      return 1;
    }
  }
  sleep(1);
  std::printf("images of %zu KiB\n", imageBytes / 1024);
  printMemory("1000 images cached", pid);

  std::vector<ImageDescription> twenty;
  for (int i = 0; i < kImages; i += 20) {
    twenty.clear();
    for (int j = i; j < i + 20; ++j) twenty.push_back({imageUrl(j), std::nullopt, {}});
    auto loaded = client->loadImages(twenty, 10s);
    if (!loaded || loaded.value().size() != 20) {
      std::fprintf(stderr, "images %d to %d did not all load\n", i, i + 19);
      return 1;
    }
  }
  sleep(1);
  printMemory("each of them loaded once", pid);
  const size_t fetched = server.requestCount();

  benchmark::RegisterBenchmark(
      "BM_LoadImages20Cached",
      [&](benchmark::State& state) {
        for (auto _ : state) {
          auto loaded = client->loadImages(twenty, 10s);
          if (!loaded || loaded.value().size() != 20) state.SkipWithError("a load failed");
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * 20 * imageBytes));
      })
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
  benchmark::RunSpecifiedBenchmarks();
  printMemory("after the timed loads", pid);
  if (server.requestCount() != fetched) {
    std::fprintf(stderr, "a load fetched an image again\n");
    return 1;
  }
  std::ifstream loadavg("/proc/loadavg");
  std::string load;
  std::getline(loadavg, load);
  std::printf("load average: %s\n", load.c_str());
  return 0;
}
