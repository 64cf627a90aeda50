// A cache-hit search over D-Bus against a bare D-Bus round trip to the daemon
// (org.freedesktop.DBus.Peer.Ping), on the same private bus and connection.
//
// The daemon runs against the reference back-end; one search fills the query cache, and every
// timed search after it is answered from the cache. Prints the median and the 90th percentile
// of each, and the ratio of the medians, also as "FIGURE cache_hit_ratio <ratio> x".
//
// What the bus itself charges for a message of the hit's size: a second pair of connections on
// the same bus, one serving an echo of a string as long as the hit's reply (from this process),
// the other calling it and Peer.Ping to the daemon alternately; the ratio of those medians is
// what a hit would cost were the daemon's own work free.
#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/bench_echo.h"
#include "bench/bench_figures.h"
#include "orvexd/base/orvex_names.h"
#include "tests/support/daemon_harness.h"

using namespace orvex;
using bench::figures;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr int kWarmup = 200;
constexpr int kRounds = 3000;

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
  testing::DaemonHarness harness(bench::kSearchBag);
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
    return answer.value().reply->rawResponse.size();
  };
  search("weath");  // fills the cache
  const size_t networkSearches = harness.backend().requestCount("search");

  const size_t replySize = search("weathe");
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
  // Thread hops show as the daemon's context switches per call; its own work as its CPU time.
  const pid_t daemon = harness.daemon()->pid();
  auto perCall = [&](auto call) {
    const bench::ThreadUse before = bench::threadUse(daemon);
    time(kRounds, call);
    const bench::ThreadUse after = bench::threadUse(daemon);
    bench::ThreadUse used;
    used.switches = after.switches - before.switches;
    used.cpuMicroseconds = (after.cpuMicroseconds - before.cpuMicroseconds) / kRounds;
    return used;
  };
  const bench::ThreadUse hitUse = perCall([&](int) { search("weathe"); });
  const bench::ThreadUse pingUse = perCall([&](int) { (void)client->ping(); });
  std::printf("daemon per call: hit %.2f us CPU, %.2f context switches; Peer.Ping %.2f us, %.2f\n",
              hitUse.cpuMicroseconds, static_cast<double>(hitUse.switches) / kRounds,
              pingUse.cpuMicroseconds, static_cast<double>(pingUse.switches) / kRounds);

  bench::EchoPeer echo(harness.bus().address(), replySize);
  auto toDaemon = sdbus::createProxy(echo.caller(), kOrvexBusName, kOrvexObjectPath);
  std::vector<double> echoes, barePings;
  for (int batch = 0; batch < 10; ++batch) {
    auto e = time(kRounds / 10, [&](int) { (void)echo.roundTripMicroseconds(); });
    auto p = time(kRounds / 10, [&](int) {
      toDaemon->callMethod("Ping").onInterface("org.freedesktop.DBus.Peer");
    });
    echoes.insert(echoes.end(), e.begin(), e.end());
    barePings.insert(barePings.end(), p.begin(), p.end());
  }
  const auto echoed = figures(echoes);
  std::printf("echo of a %zu-byte string: median %.1f us; ratio to Peer.Ping there: %.2f\n",
              replySize, echoed.median, echoed.median / figures(barePings).median);
  std::printf("FIGURE cache_hit_ratio %.3f x\n", hit.median / ping.median);
  return 0;
}
