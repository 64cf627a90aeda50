// The query-cache lookup alone, as a cache-hit search makes it: the typed text lower-cased, the
// scale compared as the request header states it, the entries under the typed prefix walked and
// the best one handed out with its ready reply text, all on the cache's queue.
//
// The cache holds 200 answers of about 2 KiB (ten results each) under completions of 20 stems;
// the lookups type 6 letters of a stem, so each walks the 10 completions stored under it.
//
// Usage: orvex_bench_query_cache [Google Benchmark flags]
// Runs the Google Benchmarks, then prints the median of 15 batches of 20 000 waiting lookups as
// "FIGURE query_cache_lookup_us <value> us".
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "orvexd/query/query_cache.h"
#include "tests/support/test_assembly.h"

using namespace orvex;

namespace {

constexpr const char* kStems[] = {
    "weather",     "restaurants", "translate", "calculator", "football",   "election", "recipes",
    "flights",     "hospital",    "currency",  "marathon",   "museum",     "parking",  "pharmacy",
    "planetarium", "railway",     "stadium",   "theatre",    "university", "volcano"};
constexpr int kCompletionsPerStem = 10;

nlohmann::json answerFor(const std::string& query, int rank) {
  nlohmann::json results = nlohmann::json::array();
  for (int r = 0; r < 10; ++r) {
    results.push_back({{"id", query + "#" + std::to_string(r)},
                       {"title", "Result " + std::to_string(r) + " for " + query},
                       {"description", std::string(120, 'd')},
                       {"thumbnail", {{"url", "https://images.example/" + std::to_string(r)}}}});
  }
  return {{"status", "OK"},
          {"query", query},
          {"completion_score", 0.5 + rank / 100.0},
          {"results", std::move(results)}};
}

struct FilledCache {
  FilledCache() {
    for (const char* stem : kStems) {
      for (int c = 0; c < kCompletionsPerStem; ++c) {
        const std::string query = std::string(stem) + " " + std::to_string(c);
        HttpRequest request;
        request.url = "https://search.example/search?q=" + query;
        request.headers["X-Zelmor-UI-Scale"] = "2.0";
        cache.set(CachedResultSet(std::string(stem).substr(0, 3), std::move(request),
                                  answerFor(query, c), Uuid::random(),
                                  env.assembly->clock->wallNow()));
      }
    }
    (void)cache.count();  // the stores have run
  }
  testing::TestAssembly env;
  QueryCache cache{*env.assembly,
                   [](std::function<void()>) { return std::unique_ptr<MemoryPressureSource>(); }};
};

ORVRequest lookupRequest(const char* stem) {
  ORVRequest request;
  request.kind = ORVRequestKind::kSearch;
  request.queryString = std::string(stem).substr(0, 6);
  request.queryString[0] = static_cast<char>(request.queryString[0] - 'a' + 'A');
  request.scale = 2;
  return request;
}

FilledCache& filled() {
  static FilledCache cache;
  return cache;
}

template <bool kWait>
void BM_Lookup(benchmark::State& state) {
  auto& cache = filled().cache;
  std::vector<ORVRequest> requests;
  for (const char* stem : kStems) requests.push_back(lookupRequest(stem));
  size_t i = 0;
  for (auto _ : state) {
    const ORVRequest& request = requests[i++ % requests.size()];
    auto found = kWait ? cache.getRequest(request) : cache.tryGetRequest(request);
    if (!found || found->replyText().empty()) state.SkipWithError("no hit");
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(BM_Lookup<true>)->Name("BM_QueryCacheGetRequest");
BENCHMARK(BM_Lookup<false>)->Name("BM_QueryCacheTryGetRequest");

double medianLookupMicroseconds() {
  auto& cache = filled().cache;
  const ORVRequest request = lookupRequest("weather");
  constexpr int kBatch = 20000;
  std::vector<double> batches;
  for (int b = 0; b < 15; ++b) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kBatch; ++i) benchmark::DoNotOptimize(cache.getRequest(request));
    batches.push_back(
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
            .count() /
        kBatch);
  }
  std::sort(batches.begin(), batches.end());
  return batches[batches.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("FIGURE query_cache_lookup_us %.2f us\n", medianLookupMicroseconds());
  return 0;
}
