// The daemon's bag against the reference back-end: the first fetch and its disk copy, restarts
// that use the copy or refresh it, one fetch for many readers, and failures that keep the bag.
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

#include "orvexd/platform/json_property_list.h"
#include "orvexd/platform/property_list.h"
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
  BagIntegrationTest() {
    writeBag(R"({"version": "3", "enabled": true, "search_url": "${BASE_URL}/search"})");
    backend = std::make_unique<testing::ReferenceBackend>(dir / "bag.json");
    // The daemon asks the back-end for its bag through the defaults store.
    const auto config = dir / "config" / "com.zelmor.orvexd";
    std::filesystem::create_directories(config);
    const auto defaults = serializePropertyList(
        PlistValue(PlistDictionary{{"ORVBagURL", PlistValue(backend->baseUrl() + "/bag")}}),
        PlistFormat::kXml);
    std::ofstream(config / "defaults.plist", std::ios::binary)
        .write(reinterpret_cast<const char*>(defaults.data()),
               static_cast<std::streamsize>(defaults.size()));
    connection = bus.connect();
  }
  ~BagIntegrationTest() override { stopDaemon(); }

  void writeBag(const std::string& json) { std::ofstream(dir / "bag.json") << json; }

  // Each launch logs to a file of its own, which daemonLog() reads.
  void startDaemon() {
    logFile = dir / ("orvexd-" + std::to_string(++launches) + ".log");
    daemon = std::make_unique<testing::ChildProcess>(
        std::vector<std::string>{ORVEXD_BINARY},
        std::map<std::string, std::string>{{"DBUS_SESSION_BUS_ADDRESS", bus.address()},
                                           {"XDG_CONFIG_HOME", (dir / "config").string()},
                                           {"XDG_CACHE_HOME", (dir / "cache").string()},
                                           {"ORVEXD_LOG_LEVEL", "debug"},
                                           {"JOURNAL_STREAM", ""},
                                           {"INVOCATION_ID", ""}},
        logFile);
    ASSERT_TRUE(eventually(
        [&] { return testing::PrivateBus::hasOwner(*connection, "com.zelmor.orvexd"); }));
  }
  void stopDaemon() {
    if (!daemon) return;
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->waitForExit(5s), 0);
    daemon.reset();
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
  std::string daemonLog() const { return testing::readTextFile(logFile); }

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

  testing::TempDir dir;
  testing::TempDir busDir;
  testing::PrivateBus bus{busDir.path()};
  std::unique_ptr<testing::ReferenceBackend> backend;
  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IProxy> proxy;
  std::unique_ptr<testing::ChildProcess> daemon;
  int launches = 0;
  std::filesystem::path logFile;
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
