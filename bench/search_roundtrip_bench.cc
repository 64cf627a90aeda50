// A cache-hit search over D-Bus against a bare D-Bus round trip to the daemon
// (org.freedesktop.DBus.Peer.Ping), on the same private bus and connection.
//
// The daemon runs against the reference back-end; one search fills the query cache, and every
// timed search after it is answered from the cache. Prints the median and the 90th percentile
// of each, and the ratio of the medians, also as "FIGURE cache_hit_ratio <ratio> x".
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "tests/support/daemon_harness.h"

using namespace orvex;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr int kWarmup = 200;
constexpr int kRounds = 3000;

struct Figures {
  double median;
  double p90;
};

Figures figures(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return {samples[samples.size() / 2], samples[samples.size() * 9 / 10]};
}

template <typename F>
std::vector<double> time(int rounds, F call) {
  std::vector<double> samples;
  samples.reserve(rounds);
  for (int i = 0; i < rounds; ++i) {
    const auto start = SteadyClock::now();
    call(i);
    samples.push_back(
        std::chrono::duration<double, std::micro>(SteadyClock::now() - start).count());
  }
  return samples;
}

}  // namespace

int main() {
  testing::DaemonHarness harness(
      R"({"version": "1", "enabled": true, "search_url": "${BASE_URL}/search"})");
  harness.logLevel = "error";
  harness.start();
  auto client = harness.client();
  if (!client->configure({"com.zelmor.bench", "Bench/1"})) return 1;

  int64_t queryId = 0;
  auto search = [&](const char* text) {
    ORVRequest request;
    request.queryId = ++queryId;
    request.queryString = text;
    request.keyboardInputMode = "en_US";
    request.scale = 2;
    auto answer = client->request(request);
    if (!answer || !answer.value().reply) {
      std::fprintf(stderr, "search %s failed\n", text);
      std::exit(1);
    }
  };
  search("weath");  // fills the cache
  const size_t networkSearches = harness.backend().requestCount("search");

  time(kWarmup, [&](int) { search("weathe"); });
  time(kWarmup, [&](int) { (void)client->ping(); });
  // Interleaved, so that both see the same machine.
  std::vector<double> hits, pings;
  for (int batch = 0; batch < 10; ++batch) {
    auto h = time(kRounds / 10, [&](int) { search("weathe"); });
    auto p = time(kRounds / 10, [&](int) { (void)client->ping(); });
    hits.insert(hits.end(), h.begin(), h.end());
    pings.insert(pings.end(), p.begin(), p.end());
  }
  if (harness.backend().requestCount("search") != networkSearches) {
    std::fprintf(stderr, "a timed search went to the network\n");
    return 1;
  }
  const auto hit = figures(hits);
  const auto ping = figures(pings);
  std::printf("cache-hit search round trip: median %.1f us, p90 %.1f us (%d calls)\n", hit.median,
              hit.p90, kRounds);
  std::printf("Peer.Ping round trip:        median %.1f us, p90 %.1f us (%d calls)\n", ping.median,
              ping.p90, kRounds);
  std::printf("ratio of medians: %.2f\n", hit.median / ping.median);
  std::printf("FIGURE cache_hit_ratio %.3f x\n", hit.median / ping.median);
  return 0;
}
