// The daemon's bag against the reference back-end: the first fetch and its disk copy, restarts
// that use the copy or refresh it, one fetch for many readers, and failures that keep the bag.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "orvexd/base/json_property_list.h"
#include "orvexd/base/property_list.h"
#include "tests/support/collector.h"
#include "tests/support/daemon_harness.h"
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
  ~BagIntegrationTest() override { stopDaemon(); }

  // The back-end reads its bag file at every request.
  void writeBag(const std::string& json) { testing::writeTextFile(dir / "bag.json", json); }
  void stopDaemon() {
    if (harness.daemon() != nullptr) {
      EXPECT_EQ(harness.stop(), 0);
    }
  }
  // The bag the daemon holds, as it reports it; null when none.
  Json heldBag() {
    const std::string text = harness.heldBag();
    return text.empty() ? Json() : Json::parse(text);
  }

  std::filesystem::path bagFile() const {
    return dir / "cache" / "com.zelmor.orvexd" / "bag.plist";
  }
  Json diskCopy() const {
    return jsonFromPropertyList(testing::readBytes(bagFile())).value_or(Json());
  }
  // Moves the disk copy's expiry to `secondsLeft` from now, as if time had passed.
  void ageDiskCopy(double secondsLeft) {
    Json copy = diskCopy();
    copy["__expiration"] = nowSeconds() + secondsLeft;
    testing::writeBytes(bagFile(), binaryPropertyListFromJson(copy));
  }

  testing::DaemonHarness harness{
      R"({"version": "3", "enabled": true, "search_url": "${BASE_URL}/search"})"};
  const std::filesystem::path& dir = harness.directory();
  testing::ReferenceBackend* backend = &harness.backend();
};

TEST_F(BagIntegrationTest, FetchedOnceThenTheDiskCopyServesRestartsUntilNearItsExpiry) {
  harness.start();
  // The copy is written just before the bag is taken into memory: wait for the latter.
  ASSERT_TRUE(eventually([&] { return heldBag().is_object(); }));
  const Json held = heldBag();
  EXPECT_EQ(held["version"], "3");
  EXPECT_EQ(held["search_url"], backend->baseUrl() + "/search");
  EXPECT_EQ(backend->requestCount("bag"), 1u);
  EXPECT_EQ(harness.counter("com.zelmor.orvexd.bag.fetches"), 1);

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

  // Restarted with eleven minutes left, the daemon holds the copy and asks for nothing. Every read
  // of the bag judges it and counts a stale one before answering: none by now means no fetch.
  writeBag(R"({"version": "4", "enabled": true})");
  stopDaemon();
  ageDiskCopy(660);
  harness.start();
  EXPECT_EQ(heldBag()["version"], "3");
  EXPECT_EQ(harness.counter("com.zelmor.orvexd.bag.expired"), 0);
  EXPECT_EQ(harness.daemonLog().find("Initiating bag fetch"), std::string::npos);
  EXPECT_EQ(backend->requestCount("bag"), 1u);

  // Nine minutes left: the copy is used while its successor is fetched.
  stopDaemon();
  ageDiskCopy(540);
  backend->setFault("bag", {{"delay_ms", 800}});
  harness.start();
  EXPECT_EQ(heldBag()["version"], "3");
  ASSERT_TRUE(eventually([&] { return heldBag()["version"] == "4"; }));
  EXPECT_GE(backend->requestCount("bag"), 2u);
  EXPECT_EQ(diskCopy()["version"], "4");
  EXPECT_NE(harness.daemonLog().find("bag expired: 5"), std::string::npos);
}

TEST_F(BagIntegrationTest, ManyReadersOfAMissingBagStartOneFetch) {
  backend->setFault("bag", {{"delay_ms", 1500}});
  harness.start();
  std::vector<std::thread> readers;
  for (int i = 0; i < 5; ++i) {
    readers.emplace_back([&] { (void)harness.client()->daemonBag(); });
  }
  for (auto& reader : readers) reader.join();
  ASSERT_TRUE(eventually([&] { return heldBag().is_object(); }));
  EXPECT_EQ(backend->requestCount("bag"), 1u);
}

// Waiting for the bag holds no thread: twenty clients each hear "timeout" a second after Configure.
TEST_F(BagIntegrationTest, TwentyClientsWaitingForTheBagAreAllAnsweredWithinASecond) {
  backend->setFault("bag", {{"delay_ms", 3000}});
  harness.start();
  std::vector<std::unique_ptr<OrvexClient>> clients;
  for (int i = 0; i < 20; ++i) clients.push_back(harness.client());
  testing::Collector<std::pair<std::string, double>> answers;  // reason, seconds after Configure
  const auto configured = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    clients[i]->onBagDidLoad([&](std::shared_ptr<const ORVBag>, std::optional<OrvexError> error) {
      const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - configured;
      answers.add({error ? error->reason : "", waited.count()});
    });
    ASSERT_TRUE(clients[i]->configure({"com.zelmor.client" + std::to_string(i), "Glance/1"}));
  }
  ASSERT_TRUE(answers.waitForCount(20, 10s));
  for (const auto& [reason, seconds] : answers.values()) {  // each client's first: no bag yet
    EXPECT_EQ(reason, "timeout");
    EXPECT_LT(seconds, 1.5);
  }
}

TEST_F(BagIntegrationTest, FailedFetchesKeepTheBagAndAreCounted) {
  harness.start();
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(bagFile()); }));
  stopDaemon();

  const std::vector<std::pair<Json, std::string>> cases = {
      {{{"status", 500}}, "Error fetching bag status code: 500"},
      {{{"body", "[1, 2]"}}, "Error fetching bag: returned data was not of the expected type."},
      {{{"drop", true}}, "Error fetching bag: "},
  };
  for (const auto& [fault, log] : cases) {
    SCOPED_TRACE(fault.dump());
    ageDiskCopy(60);
    backend->setFault("bag", fault);
    const size_t before = backend->requestCount("bag");
    harness.start();
    // The bag stays stale, so every read of it (GetBag, job A at start-up) may try again:
    // count at least one failure.
    ASSERT_TRUE(
        eventually([&] { return harness.counter("com.zelmor.orvexd.bag.fetchesfailed") >= 1; }));
    EXPECT_GT(backend->requestCount("bag"), before);
    EXPECT_EQ(heldBag()["version"], "3");
    EXPECT_NE(harness.daemonLog().find(log), std::string::npos);
    stopDaemon();
    backend->clearFaults();
  }
}

// A bag endpoint dripping its answer (a minute's worth) is abandoned at the 1 s deadline.
TEST(BagDeadlineTest, ADrippingBagEndpointIsAbandonedAtTheDeadline) {
  testing::DaemonHarness harness(R"({"version": "3", "padding": ")" + std::string(600, 'x') + "\"}",
                                 PlistDictionary{{"ORVBagRequestTimeout", PlistValue(1.0)}});
  harness.backend().setFault("bag", {{"drip_ms", 100}});
  harness.start();
  const auto started = std::chrono::steady_clock::now();
  ASSERT_TRUE(testing::eventually(
      [&] { return harness.counter("com.zelmor.orvexd.bag.fetchesfailed") == 1; }, 10s));
  EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);
  const std::string log = harness.daemonLog();
  EXPECT_NE(log.find("abandoning the bag fetch: it outlasted its deadline"), std::string::npos);
  EXPECT_NE(log.find("timed out"), std::string::npos);
}

}  // namespace
}  // namespace orvex
