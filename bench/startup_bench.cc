// Cold-start figures of the built daemon on a private bus: time from process start to the bus
// name being owned and to the first GetCounters reply, and resident memory once idle; then, with
// the bag the daemon fetched from the reference back-end on an earlier run kept on disk, the time
// from process start to a front-end's first Configure reply.
//
// Usage: orvex_bench_startup [runs]   (default 20)
#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/daemon_harness.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_environment.h"

namespace {

using Clock = std::chrono::steady_clock;

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

long residentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

// A daemon that has exited may own its name until the bus sees its connection close: the next
// one must find the name free.
void waitUntilNameIsFree(sdbus::IConnection& connection) {
  (void)orvex::testing::eventually(
      [&] { return !orvex::testing::PrivateBus::hasOwner(connection, "com.zelmor.orvexd"); });
}

// Process start to the first Configure reply, each start finding the bag on disk that the
// first one fetched; nothing when the daemon misbehaved (said on stderr).
std::optional<std::vector<double>> configureTimes(int runs) {
  using namespace std::chrono_literals;
  orvex::testing::DaemonHarness harness(
      R"({"version": "1", "enabled": true, "search_url": "${BASE_URL}/search"})");
  harness.logLevel = "error";
  harness.start();
  const bool fetched = orvex::testing::eventually([&] { return !harness.heldBag().empty(); }, 10s);
  (void)harness.stop();
  const auto bagFile = harness.cacheDirectory() / "com.zelmor.orvexd" / "bag.plist";
  if (!fetched || !std::filesystem::exists(bagFile)) {
    std::fprintf(stderr, "orvexd did not keep a bag on disk\n");
    return std::nullopt;
  }
  // The environment DaemonHarness::start() gives the daemon, quiet.
  const std::map<std::string, std::string> environment = {
      {"DBUS_SESSION_BUS_ADDRESS", harness.bus().address()},
      {"XDG_CONFIG_HOME", (harness.directory() / "config").string()},
      {"XDG_CACHE_HOME", harness.cacheDirectory().string()},
      {"TMPDIR", harness.tmpDirectory().string()},
      {"ORVEXD_LOG_LEVEL", "error"},
      {"JOURNAL_STREAM", ""},
      {"INVOCATION_ID", ""},
      {"DBUS_STARTER_BUS_TYPE", ""}};
  auto connection = harness.bus().connect();
  std::vector<double> times;
  for (int run = 0; run < runs; ++run) {
    auto client = harness.client();  // connected before the clock starts
    const auto start = Clock::now();
    orvex::testing::ChildProcess process({ORVEXD_BINARY}, environment,
                                         harness.directory() / "configure-bench.log");
    while (!orvex::testing::PrivateBus::hasOwner(*connection, "com.zelmor.orvexd")) {
      if (Clock::now() - start > 10s) {
        std::fprintf(stderr, "orvexd did not own its name within 10 s\n");
        return std::nullopt;
      }
    }
    const auto endpoint = client->configure({"com.zelmor.bench", "Bench/1"});
    const auto replied = Clock::now();
    if (!endpoint) {
      std::fprintf(stderr, "Configure failed\n");
      return std::nullopt;
    }
    times.push_back(std::chrono::duration<double, std::milli>(replied - start).count());
    client.reset();
    process.signal(SIGTERM);
    process.waitForExit(5s);
    waitUntilNameIsFree(*connection);
  }
  if (harness.backend().requestCount("bag") != 1) {
    std::fprintf(stderr, "the daemon fetched the bag again instead of reading its copy\n");
    return std::nullopt;
  }
  return times;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
  orvex::testing::TempDir dir;
  orvex::testing::PrivateBus bus(dir.path() / "bus");
  auto connection = bus.connect();
  auto dbus = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
  auto daemon = sdbus::createProxy(*connection, "com.zelmor.orvexd", "/com/zelmor/orvexd");
  const std::map<std::string, std::string> environment = {
      {"DBUS_SESSION_BUS_ADDRESS", bus.address()},
      {"XDG_CONFIG_HOME", (dir / "config").string()},
      {"XDG_CACHE_HOME", (dir / "cache").string()},
      {"DBUS_STARTER_BUS_TYPE", ""}};

  std::vector<double> toName, toReply;
  long rss = -1;
  for (int run = 0; run < runs; ++run) {
    const auto start = Clock::now();
    orvex::testing::ChildProcess process({ORVEXD_BINARY}, environment, dir / "daemon.log");
    bool owned = false;
    while (!owned) {
      if (Clock::now() - start > std::chrono::seconds(10)) {
        std::fprintf(stderr, "orvexd did not own its name within 10 s; see %s\n",
                     (dir / "daemon.log").c_str());
        return 1;
      }
      dbus->callMethod("NameHasOwner")
          .onInterface("org.freedesktop.DBus")
          .withArguments(std::string("com.zelmor.orvexd"))
          .storeResultsTo(owned);
    }
    const auto named = Clock::now();
    std::map<std::string, int64_t> counters;
    daemon->callMethod("GetCounters")
        .onInterface("com.zelmor.orvexd.Diagnostics")
        .storeResultsTo(counters);
    const auto replied = Clock::now();
    toName.push_back(std::chrono::duration<double, std::milli>(named - start).count());
    toReply.push_back(std::chrono::duration<double, std::milli>(replied - start).count());
    if (run == runs - 1) {
      std::this_thread::sleep_for(std::chrono::seconds(2));  // let start-up work settle
      rss = residentKiB(process.pid());
    }
    process.signal(SIGTERM);
    process.waitForExit(std::chrono::seconds(5));
    waitUntilNameIsFree(*connection);
  }
  std::printf("runs: %d\n", runs);
  std::printf("process start -> bus name owned: median %.2f ms (min %.2f, max %.2f)\n",
              median(toName), *std::min_element(toName.begin(), toName.end()),
              *std::max_element(toName.begin(), toName.end()));
  std::printf("process start -> first GetCounters reply: median %.2f ms (min %.2f, max %.2f)\n",
              median(toReply), *std::min_element(toReply.begin(), toReply.end()),
              *std::max_element(toReply.begin(), toReply.end()));
  std::printf("idle resident memory: %ld KiB\n", rss);

  const auto configured = configureTimes(runs);
  if (!configured) return 1;
  std::printf(
      "process start -> first Configure reply, bag on disk: median %.2f ms (min %.2f, max %.2f)\n",
      median(*configured), *std::min_element(configured->begin(), configured->end()),
      *std::max_element(configured->begin(), configured->end()));
  std::printf("FIGURE cold_start_configure_ms %.2f ms\n", median(*configured));
  return 0;
}
