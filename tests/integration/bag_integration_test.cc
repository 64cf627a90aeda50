// The daemon's bag against the reference back-end: the first fetch and its disk copy, restarts
// that use the copy or refresh it, one fetch for many readers, and failures that keep the bag.
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

#include "orvexd/base/json_property_list.h"
#include "orvexd/base/property_list.h"
#include "tests/support/daemon_harness.h"
#include "tests/support/private_bus.h"
#include "tests/support/reference_backend.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;

// Waits on the daemon and the back-end, two other processes.
template <typename F>
bool eventually(F condition) {
  return testing::eventually(condition, 10s);
}

double nowSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class BagIntegrationTest : public ::testing::Test {
 protected:
  BagIntegrationTest()
      : harness(R"({"version": "3", "enabled": true, "search_url": "${BASE_URL}/search"})") {
    connection = bus.connect();
  }
  ~BagIntegrationTest() override { stopDaemon(); }

  // The back-end reads its bag file at every request.
  void writeBag(const std::string& json) { std::ofstream(dir / "bag.json") << json; }

  // Each launch logs to a file of its own, which daemonLog() reads.
  void startDaemon() { harness.start(); }
  void stopDaemon() {
    if (harness.daemon() == nullptr) return;
    EXPECT_EQ(harness.stop(), 0);
  }

  sdbus::IProxy& diagnostics() {
    if (!proxy) proxy = sdbus::createProxy(*connection, "com.zelmor.orvexd", "/com/zelmor/orvexd");
    return *proxy;
  }
  // The bag the daemon holds, as it reports it; null when none.
  Json heldBag() {
    std::string text;
    diagnostics()
        .callMethod("GetBag")
        .onInterface("com.zelmor.orvexd.Diagnostics")
        .storeResultsTo(text);
    return text.empty() ? Json() : Json::parse(text);
  }
  int64_t counter(const std::string& key) {
    std::map<std::string, int64_t> counters;
    diagnostics()
        .callMethod("GetCounters")
        .onInterface("com.zelmor.orvexd.Diagnostics")
        .storeResultsTo(counters);
    return counters.count(key) ? counters.at(key) : 0;
  }
  std::string daemonLog() const { return harness.daemonLog(); }

  std::filesystem::path bagFile() const {
    return dir / "cache" / "com.zelmor.orvexd" / "bag.plist";
  }
  Json diskCopy() const {
    std::ifstream in(bagFile(), std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
    return jsonFromPropertyList(bytes).value_or(Json());
  }
  // Moves the disk copy's expiry to `secondsLeft` from now, as if time had passed.
  void ageDiskCopy(double secondsLeft) {
    Json copy = diskCopy();
    copy["__expiration"] = nowSeconds() + secondsLeft;
    const auto bytes = binaryPropertyListFromJson(copy);
    std::ofstream(bagFile(), std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }

  testing::DaemonHarness harness;
  const std::filesystem::path& dir = harness.directory();
  const testing::PrivateBus& bus = harness.bus();
  testing::ReferenceBackend* backend = &harness.backend();
  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IProxy> proxy;
};

TEST_F(BagIntegrationTest, FetchedOnceThenTheDiskCopyServesRestartsUntilNearItsExpiry) {
  startDaemon();
  // The copy is written just before the bag is taken into memory: wait for the latter.
  ASSERT_TRUE(eventually([&] { return heldBag().is_object(); }));
  const Json held = heldBag();
  EXPECT_EQ(held["version"], "3");
  EXPECT_EQ(held["search_url"], backend->baseUrl() + "/search");
  EXPECT_EQ(backend->requestCount("bag"), 1u);
  EXPECT_EQ(counter("com.zelmor.orvexd.bag.fetches"), 1);

  // What the daemon sent, and what it kept: the server's bag with its expiry and cache key.
  const auto request = backend->requests().front();
  EXPECT_EQ(request.headers.at("User-Agent"), "orvexd/1.0");
  EXPECT_NE(request.query.find("key=osprey4471"), std::string::npos);
  const Json copy = diskCopy();
  EXPECT_EQ(copy["version"], "3");
  EXPECT_NEAR(copy["__expiration"].get<double>(), nowSeconds() + 14400, 30);
  EXPECT_EQ(copy["__bagurl"].get<std::string>().rfind(backend->baseUrl() + "/bag?", 0), 0u);
  EXPECT_EQ(held["__bagurl"], copy["__bagurl"]);
  struct stat info {};
  ASSERT_EQ(stat(bagFile().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  // Restarted with hours left, the daemon holds the copy and asks for nothing.
  writeBag(R"({"version": "4", "enabled": true})");
  stopDaemon();
  startDaemon();
  EXPECT_EQ(heldBag()["version"], "3");
  std::this_thread::sleep_for(300ms);  // room for a fetch that should not happen
  EXPECT_EQ(backend->requestCount("bag"), 1u);

  // Nine minutes left: the copy is used while its successor is fetched.
  stopDaemon();
  ageDiskCopy(540);
  backend->setFault("bag", {{"delay_ms", 800}});
  startDaemon();
  EXPECT_EQ(heldBag()["version"], "3");
  ASSERT_TRUE(eventually([&] { return heldBag()["version"] == "4"; }));
  EXPECT_GE(backend->requestCount("bag"), 2u);
  EXPECT_EQ(diskCopy()["version"], "4");
  EXPECT_NE(daemonLog().find("bag expired: 5"), std::string::npos);
}

TEST_F(BagIntegrationTest, ManyReadersOfAMissingBagStartOneFetch) {
  backend->setFault("bag", {{"delay_ms", 1500}});
  startDaemon();
  std::vector<std::thread> readers;
  for (int i = 0; i < 5; ++i) {
    readers.emplace_back([&] {
      auto own = bus.connect();
      auto reader = sdbus::createProxy(*own, "com.zelmor.orvexd", "/com/zelmor/orvexd");
      std::string text;
      reader->callMethod("GetBag")
          .onInterface("com.zelmor.orvexd.Diagnostics")
          .storeResultsTo(text);
    });
  }
  for (auto& reader : readers) reader.join();
  ASSERT_TRUE(eventually([&] { return heldBag().is_object(); }));
  EXPECT_EQ(backend->requestCount("bag"), 1u);
}

TEST_F(BagIntegrationTest, FailedFetchesKeepTheBagAndAreCounted) {
  startDaemon();
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(bagFile()); }));
  stopDaemon();

  const std::vector<std::pair<Json, std::string>> cases = {
      {{{"status", 500}}, "Error fetching bag status code: 500"},
      {{{"status", 304}}, "Error fetching bag status code: 304"},
      {{{"body", "[1, 2]"}}, "Error fetching bag: returned data was not of the expected type."},
      {{{"garbage", true}}, "Error fetching bag: returned data was not of the expected type."},
      {{{"drop", true}}, "Error fetching bag: "},
  };
  for (const auto& [fault, log] : cases) {
    SCOPED_TRACE(fault.dump());
    ageDiskCopy(60);
    backend->setFault("bag", fault);
    const size_t before = backend->requestCount("bag");
    startDaemon();
    // The bag stays stale, so every read of it (GetBag, job A at start-up) may try again:
    // count at least one failure.
    ASSERT_TRUE(eventually([&] { return counter("com.zelmor.orvexd.bag.fetchesfailed") >= 1; }));
    EXPECT_GT(backend->requestCount("bag"), before);
    EXPECT_EQ(heldBag()["version"], "3");
    EXPECT_NE(daemonLog().find(log), std::string::npos);
    stopDaemon();
    backend->clearFaults();
  }

  // A malformed override is logged and the default endpoint is asked instead.
  const auto config = dir / "config" / "com.zelmor.orvexd" / "defaults.plist";
  const auto defaults = serializePropertyList(
      PlistValue(PlistDictionary{{"ORVBagURL", PlistValue("::not a url::")}}), PlistFormat::kXml);
  std::ofstream(config, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(defaults.data()),
             static_cast<std::streamsize>(defaults.size()));
  startDaemon();
  ASSERT_TRUE(eventually([&] {
    return daemonLog().find("Malformed orvex bag URL in user defaults key ORVBagURL") !=
           std::string::npos;
  }));
  EXPECT_NE(daemonLog().find("https://bag.search.zelmor.com/bag?"), std::string::npos);
}

}  // namespace
}  // namespace orvex
