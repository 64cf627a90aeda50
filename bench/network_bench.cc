// A search that goes to the network through the daemon against a direct HTTP GET of the same URL
// with libcurl, both from the same reference back-end on loopback.
//
// The daemon's searches carry a query item, which makes them bypass the query cache, so each one
// is sent to the back-end. The direct GET repeats the URL and headers of the daemon's last
// search on one kept-alive libcurl handle, as the daemon's own HTTP session keeps its connection.
// The two alternate call by call, so that both see the same machine. Prints the median and the
// 90th percentile of each and "FIGURE network_overhead_ms <median daemon - median direct> ms",
// and how much of that difference is left once the bus's own part is taken off: a Peer.Ping
// round trip on the same connection, and the echo of a reply of the answer's size by a peer
// that does nothing else.
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "bench/bench_echo.h"
#include "bench/bench_figures.h"
#include "tests/support/daemon_harness.h"

using namespace orvex;
using bench::figures;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr int kWarmup = 30;
constexpr int kRounds = 400;

size_t collect(char* data, size_t size, size_t count, void* into) {
  static_cast<std::string*>(into)->append(data, size * count);
  return size * count;
}

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::exit(1);
}

}  // namespace

int main() {
  testing::DaemonHarness harness(bench::kSearchBag);
  harness.logLevel = "error";
  harness.start();
  auto client = harness.clientWithBag({"com.zelmor.bench", "Bench/1"});

  int64_t queryId = 0;
  size_t replyBytes = 0;
  auto throughDaemon = [&] {
    ORVRequest request = testing::searchRequest(++queryId, "weather");
    request.queryItems.push_back({"bench", "1"});  // bypasses the query cache
    auto answer = client->request(request);
    if (!answer || !answer.value().reply || answer.value().reply->rawResponse.empty()) {
      fail("a search through the daemon failed");
    }
    replyBytes = answer.value().reply->rawResponse.size();
  };
  throughDaemon();
  const auto sent = harness.backend().requests().back();
  if (!sent.endpoint || *sent.endpoint != "search") fail("the daemon sent no search");

  // The same request, sent directly.
  CURL* curl = curl_easy_init();
  std::string url = harness.backend().baseUrl();
  url.append(sent.path).append("?").append(sent.query);
  curl_slist* headers = nullptr;
  for (const auto& [name, value] : sent.headers) {
    std::string line = name;
    line.append(": ").append(value);
    headers = curl_slist_append(headers, line.c_str());
  }
  std::string body;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
  auto direct = [&] {
    body.clear();
    long status = 0;
    if (curl_easy_perform(curl) != CURLE_OK ||
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK || status != 200 ||
        body.empty()) {
      fail("the direct GET failed");
    }
  };

  // CPU of the calling thread, to set what a direct GET costs against the daemon's CPU.
  auto threadCpuMicroseconds = [] {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
  };
  double directCpu = 0;
  auto timed = [](auto call) {
    const auto start = SteadyClock::now();
    call();
    return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
  };
  for (int i = 0; i < kWarmup; ++i) {
    throughDaemon();
    direct();
  }
  const size_t before = harness.backend().requestCount("search");
  std::vector<double> daemon, plain, pings;
  const bench::ThreadUse usedBefore = bench::threadUse(harness.daemon()->pid());
  for (int i = 0; i < kRounds; ++i) {
    daemon.push_back(timed(throughDaemon));
    const double cpuBefore = threadCpuMicroseconds();
    plain.push_back(timed(direct));
    directCpu += threadCpuMicroseconds() - cpuBefore;
  }
  const bench::ThreadUse usedAfter = bench::threadUse(harness.daemon()->pid());
  // The part of the difference that is the bus's own: one call and its reply through the bus
  // daemon, which a direct GET does not make.
  for (int i = 0; i < kRounds; ++i) {
    pings.push_back(timed([&] { (void)client->ping(); }));
  }
  // And what a reply of the answer's size costs the bus, from a peer that only echoes.
  bench::EchoPeer echo(harness.bus().address(), replyBytes);
  std::vector<double> echoes;
  for (int i = 0; i < kRounds; ++i) echoes.push_back(echo.roundTripMicroseconds() / 1000);
  if (harness.backend().requestCount("search") != before + 2 * kRounds) {
    fail("a timed search did not reach the back-end");
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);

  const auto d = figures(daemon);
  const auto p = figures(plain);
  std::printf("search through the daemon: median %.3f ms, p90 %.3f ms (%d calls)\n", d.median,
              d.p90, kRounds);
  std::printf("direct GET with libcurl:   median %.3f ms, p90 %.3f ms (%d calls)\n", p.median,
              p.p90, kRounds);
  const auto ping = figures(pings);
  const auto echoed = figures(echoes);
  std::printf("Peer.Ping on the same connection: median %.3f ms; difference less that: %.3f ms\n",
              ping.median, d.median - p.median - ping.median);
  std::printf(
      "echo of a %zu-byte reply by another peer: median %.3f ms; difference less that: "
      "%.3f ms\n",
      replyBytes, echoed.median, d.median - p.median - echoed.median);
  std::printf("daemon per search: %.1f us CPU, %.2f context switches\n",
              (usedAfter.cpuMicroseconds - usedBefore.cpuMicroseconds) / kRounds,
              static_cast<double>(usedAfter.switches - usedBefore.switches) / kRounds);
  for (const auto& [name, after] : usedAfter.byName) {
    const auto before = usedBefore.byName.find(name);
    const bench::ThreadUse::Figures start =
        before == usedBefore.byName.end() ? bench::ThreadUse::Figures{} : before->second;
    std::printf("  thread %-14s %6.1f us CPU, %.2f context switches\n", name.c_str(),
                (after.cpuMicroseconds - start.cpuMicroseconds) / kRounds,
                static_cast<double>(after.switches - start.switches) / kRounds);
  }
  std::printf("direct GET per call: %.1f us CPU\n", directCpu / kRounds);
  std::printf("FIGURE network_overhead_ms %.3f ms\n", d.median - p.median);
  std::printf("FIGURE network_overhead_less_echo_ms %.3f ms\n",
              d.median - p.median - echoed.median);
  return 0;
}
