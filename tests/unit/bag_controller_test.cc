#include "orvexd/network/bag_controller.h"

#include <gtest/gtest.h>

#include "orvexd/base/json_property_list.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "orvexd/feedback/client_session_manager.h"
#include "orvexd/feedback/persistent_storage.h"
#include "orvexd/feedback/standalone_client_session.h"
#include "orvexd/network/network_request_factory.h"
#include "orvexd/network/user_guid_controller.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/query/client_state.h"
#include "tests/support/collector.h"
#include "tests/support/fixed_locale.h"
#include "tests/support/log_capture.h"
#include "tests/support/loopback_http_server.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using testing::LogCapture;
using testing::LoopbackHttpServer;

constexpr auto kWatchdog = 10s;

struct RecordingNotifier final : SystemNotifier {
  void postNotification(const std::string& name) override { posted.add(name); }
  testing::Collector<std::string> posted;
};

// What "ORVBagChangeNotification" announced, in order.
struct BagEvents {
  explicit BagEvents(NotificationCenter& center)
      : token(center.addObserver(kORVBagChangeNotification, nullptr, [this](const Notification& n) {
          if (const auto* bag = n.userInfoValue<std::shared_ptr<const ORVBag>>("bag"))
            bags.add(*bag);
          if (const auto* error = n.userInfoValue<OrvexError>("bagError")) errors.add(*error);
        })) {}
  bool waitFor(size_t bagCount, size_t errorCount = 0) {
    return bags.waitForCount(bagCount, kWatchdog) && errors.waitForCount(errorCount, kWatchdog);
  }

  testing::Collector<std::shared_ptr<const ORVBag>> bags;
  testing::Collector<OrvexError> errors;
  ObserverToken token;  // last: removed before the collectors go
};

class BagControllerTest : public ::testing::Test {
 protected:
  BagControllerTest() {
    OrvexDiagnosticDataReporter::resetAllForTesting();
    server.handle("GET", "/bag", [this](const testing::RecordedRequest&) {
      std::lock_guard lock(mutex);
      return answer;
    });
    serve(R"({"version": "9", "enabled": true, "warm_url": "https://warm.example/w",
              "agents": {"news": {"enabled": false}}})");
    Assembly& assembly = *test.assembly;
    assembly.userDefaults->setObject(kORVBagURLKey, PlistValue(server.baseUrl() + "/bag"));
    assembly.systemNotifier = notifier;
    HttpSessionConfiguration configuration;
    configuration.identifier = "bag";
    assembly.bagSession =
        std::make_shared<HttpSession>(configuration, *test.platform.pool, *test.platform.clock,
                                      (test.directory / "tmp").string());
    DeviceContextServices services;
    services.locale = std::move(ownedLocale);
    services.language = makeLanguageDetector();
    factory = std::make_shared<ORVNetworkRequestFactory>(assembly, std::move(services));
    factory->start();
    assembly.requestFactory = factory;
  }

  ~BagControllerTest() override { test.settle(); }

  void serve(std::string body, int status = 200,
             std::vector<std::pair<std::string, std::string>> headers = {}) {
    std::lock_guard lock(mutex);
    headers.emplace_back("Content-Type", "application/json");
    answer = {status, std::move(body), std::move(headers)};
  }

  std::shared_ptr<OrvexBagController> makeController() {
    auto controller = std::make_shared<OrvexBagController>(*test.assembly);
    test.assembly->bagController = controller;
    controller->start();
    return controller;
  }

  // A controller holding the first fetched bag.
  std::shared_ptr<OrvexBagController> startWithBag(BagEvents& events) {
    auto controller = makeController();
    (void)controller->currentBag();
    drain(events, 1);
    return controller;
  }

  std::filesystem::path bagFile() const {
    return test.assembly->fileManager->cacheDirectory() / "bag.plist";
  }
  std::vector<testing::RecordedRequest> bagRequests() const { return server.requests(); }

  // Lets the fetches the controller queued on the pool reach the server and come back.
  void drain(BagEvents& events, size_t bags, size_t errors = 0) {
    ASSERT_TRUE(events.waitFor(bags, errors));
    test.settle();
  }

  LoopbackHttpServer server;
  testing::TestAssembly test;
  std::shared_ptr<RecordingNotifier> notifier = std::make_shared<RecordingNotifier>();
  std::unique_ptr<testing::FixedLocale> ownedLocale = std::make_unique<testing::FixedLocale>();
  std::shared_ptr<ORVNetworkRequestFactory> factory;

  std::mutex mutex;
  LoopbackHttpServer::Response answer;
};

TEST_F(BagControllerTest, FailedFetchesKeepTheBagAndReportTheirError) {
  BagEvents events(*test.assembly->notificationCenter);
  auto controller = startWithBag(events);
  const auto held = controller->currentBag();

  // A server-announced newer version is how a fetch is made on demand here. (What each failure
  // logs is checked through the daemon, in BagIntegrationTest.)
  int version = 10;
  size_t errors = 0;
  for (const auto& [status, body, reason] : std::vector<std::tuple<int, std::string, std::string>>{
           {304, "", "statusCode 304"},
           {500, "oops", "statusCode 500"},
           {200, "{\"version\": ", "not JSON object"}}) {
    SCOPED_TRACE(reason);
    serve(body, status);
    test.advance(1min);  // past the back-off of the failure before
    controller->forceFetchBag(BagDictionary{{"bag", version++}});
    drain(events, 1, ++errors);
    const OrvexError error = events.errors.values().back();
    EXPECT_EQ(error.domain, kORVErrorDomain);
    EXPECT_EQ(error.code, 2);
    EXPECT_EQ(error.reason, reason);
    EXPECT_EQ(controller->cachedBagState(), held);
  }

  // A transport failure is reported as the HTTP layer's error, without a retry.
  server.failNextRequests(1);
  const size_t before = bagRequests().size();
  test.advance(1min);
  controller->forceFetchBag(BagDictionary{{"bag", version++}});
  drain(events, 1, ++errors);
  EXPECT_NE(events.errors.values().back().domain, kORVErrorDomain);
  EXPECT_EQ(bagRequests().size(), before + 1);

  // An object nested beyond what the disk copy can hold is refused without an error.
  std::string deep(600, '[');
  deep = "{\"deep\": " + deep + std::string(600, ']') + "}";
  serve(deep);
  LogCapture logs;
  test.advance(1min);
  controller->forceFetchBag(BagDictionary{{"bag", version++}});
  EXPECT_TRUE(logs.waitForPrefix("error parsing bag json ", kWatchdog));
  test.settle();
  EXPECT_EQ(controller->cachedBagState(), held);
  EXPECT_EQ(events.errors.values().size(), errors);
  EXPECT_EQ(testing::counterValue(kORVCounterBagFetchesFailed), static_cast<int64_t>(errors));
  EXPECT_EQ(testing::counterValue(kORVCounterBagFetches), 2);
}

// Each fetch has a session of its own, kept with feedback off and unseen by the session manager.
TEST_F(BagControllerTest, EachFetchIsRecordedInAStandaloneSession) {
  Assembly& assembly = *test.assembly;
  auto manager = std::make_shared<ClientSessionManager>(assembly, nullptr, "orvex");
  assembly.clientSessionManager = manager;
  auto storage = std::make_shared<OrvexPersistentStorage>(assembly, "orvexd/1.0");
  assembly.persistentStorage = storage;
  assembly.openStandaloneSession = StandaloneClientSession::opener(assembly);
  serve(R"({"version": "9", "feedback_enabled": false})");
  BagEvents events(*assembly.notificationCenter);
  auto controller = startWithBag(events);
  serve("oops", 500);
  controller->forceFetchBag(BagDictionary{{"bag", 9.5}});
  drain(events, 1, 1);
  EXPECT_NE(bagRequests().back().rawQuery.find("version=9.5"), std::string::npos);  // not "9"

  EXPECT_TRUE(manager->currentFeedbacksWithRelativeTimestamp().empty());
  const auto files = storage->getAvailableSessionHandles();
  ASSERT_EQ(files.size(), 2u);  // one per fetch
  const auto records = files[1]->read().value_or(StoredSession()).feedbacks;
  std::vector<NBFeedbackType> types;
  for (const auto& record : records) types.push_back(record.type());
  ASSERT_EQ(types, (std::vector{NBFeedbackType::kNetworkSearchStart,
                                NBFeedbackType::kNetworkSearchEnd, NBFeedbackType::kError}));
  const auto& start = dynamic_cast<const NBStartNetworkSearchFeedback&>(*records[0].feedback());
  EXPECT_EQ(start.url.value_or("").rfind(server.baseUrl() + bagRequests().back().path, 0), 0u);
  EXPECT_EQ(start.triggerEvent, 16u);
  EXPECT_EQ(start.endpoint, 10u);
  const auto& end = dynamic_cast<const NBEndNetworkSearchFeedback&>(*records[1].feedback());
  EXPECT_EQ(end.uuid, start.uuid);
  EXPECT_EQ(end.statusCode, 500);
  EXPECT_EQ(records[2].userAgent(), "orvexd/1.0");
}

// A 503's Retry-After of 30 s holds off every read of the stale bag until it has passed.
TEST_F(BagControllerTest, AFetchRefusedWithRetryAfterHoldsOffReadsOfTheStaleBag) {
  BagEvents events(*test.assembly->notificationCenter);
  auto controller = startWithBag(events);
  test.platform.clock->setWallTime(test.platform.clock->wallNow() +
                                   OrvexBagController::kBagLifetime);
  serve("busy", 503, {{"Retry-After", "30"}});
  (void)controller->cachedBagState();
  drain(events, 1, 1);
  for (int read = 0; read < 299; ++read) {
    test.advance(100ms);
    (void)controller->cachedBagState();
  }
  test.settle();
  EXPECT_EQ(bagRequests().size(), 2u);
  serve(R"({"version": "10"})");
  test.advance(100ms);
  (void)controller->cachedBagState();
  drain(events, 2, 1);
  EXPECT_EQ(bagRequests().size(), 3u);
}

// Every keystroke reads the stale disk bag (its search's records do); the refused back-end is
// asked for the bag only as the back-off allows (at 0, 1, 3, 7, 15 and 31 s).
TEST_F(BagControllerTest, AMinuteOfTypingAgainstAGoneBackEndMakesFewBagRequests) {
  const std::string gone = [] { return LoopbackHttpServer().baseUrl(); }();  // closed again
  serve(R"({"version": "9", "enabled": true, "feedback_enabled": true, "search_url": ")" + gone +
        R"(/search"})");
  {
    BagEvents events(*test.assembly->notificationCenter);
    startWithBag(events);  // and its disk copy
  }
  Assembly& assembly = *test.assembly;
  assembly.userDefaults->setObject(kORVBagURLKey, PlistValue(gone + "/bag"));
  assembly.sharedSession = true;
  assembly.urlSession = assembly.bagSession;
  assembly.guidController = std::make_shared<OrvexUserGUIDController>(assembly);
  assembly.clientSessionManager =
      std::make_shared<ClientSessionManager>(assembly, assembly.guidController, "orvex");
  auto controller = makeController();
  auto client = ClientState::initWithIdentifier("com.zelmor.glance", assembly);
  client->setUserAgent("Glance/1");
  ORVRequest keystroke;
  for (int key = 1; key <= 600; ++key) {
    keystroke.queryId = key;
    client->search(keystroke, [](int64_t, std::optional<ORVReply>, std::optional<OrvexError>) {});
    test.settle();
    test.advance(100ms);
  }
  // The searches' completions hold the client state, which needs the Assembly.
  EXPECT_TRUE(
      testing::eventually([&] { return assembly.urlSession->outstandingTaskCount() == 0; }));
  EXPECT_LE(testing::counterValue(kORVCounterBagFetchesFailed), 10);
}

TEST(BagFetchBackoffTest, DoublesToFiveMinutesTakesRetryAfterAndEndsWithASuccess) {
  BagFetchBackoff backoff;
  const MonotonicTime now{};
  std::vector<int64_t> waits;
  for (int failure = 0; failure < 11; ++failure) {
    waits.push_back(
        std::chrono::duration_cast<std::chrono::seconds>(backoff.fetchFailed(now, {})).count());
  }
  EXPECT_EQ(waits, (std::vector<int64_t>{1, 2, 4, 8, 16, 32, 64, 128, 256, 300, 300}));
  backoff.fetchSucceeded();  // else the next wait would be 300 s
  EXPECT_EQ(backoff.fetchFailed(now, Duration(30s)), Duration(30s));
  EXPECT_EQ(backoff.fetchFailed(now, Duration(10h)), Duration(4h));

  const WallTime date = BagFetchBackoff::parseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT").value();
  HttpResponse busy{.url = "", .statusCode = 429, .headers = {{"retry-after", " 30 "}}};
  EXPECT_EQ(BagFetchBackoff::retryAfter(busy, date), Duration(30s));
  busy.headers = {{"Retry-After", "Sun, 06 Nov 1994 08:51:37 GMT"}};
  EXPECT_EQ(BagFetchBackoff::retryAfter(busy, date), Duration(120s));
  for (const char* bad : {"soon", "-5", "Sun, 06 Nov 1994 08:49:37 UTC"}) {
    busy.headers = {{"Retry-After", bad}};
    EXPECT_FALSE(BagFetchBackoff::retryAfter(busy, date)) << bad;
  }
  busy.headers = {{"Retry-After", "30"}};
  busy.statusCode = 500;
  EXPECT_FALSE(BagFetchBackoff::retryAfter(busy, date));
}

// A server-announced version is fetched only when it is newer, numerically, than the bag held;
// a fetched bag that flips the news client's status broadcasts it.
TEST_F(BagControllerTest, ServerAnnouncedNewerVersionsAreFetchedAndNewsStatusFlipsBroadcast) {
  BagEvents events(*test.assembly->notificationCenter);
  auto controller = makeController();
  // With no bag held, nothing is announced as newer, and a read answers none and starts the fetch.
  controller->forceFetchBag(BagDictionary{{"bag", 10}});
  test.settle();
  EXPECT_EQ(bagRequests().size(), 0u);

  EXPECT_EQ(controller->currentBag(), nullptr);
  drain(events, 1);  // holds "9", news disabled: the first network bag posts "disabled"
  for (const auto& ignored : {BagDictionary{{"bag", 9}}, BagDictionary{{"bag", "10"}},
                              BagDictionary{{"other", 12}}, BagDictionary::array()}) {
    controller->forceFetchBag(ignored);
  }
  test.settle();
  EXPECT_EQ(bagRequests().size(), 1u);

  size_t bags = 1;
  const auto fetch = [&](const std::string& body, int version) {
    serve(body);
    controller->forceFetchBag(BagDictionary{{"bag", version}});
    drain(events, ++bags);
  };
  fetch(R"({"version": "10", "enabled": false})", 10);
  EXPECT_NE(bagRequests().back().rawQuery.find("version=10"), std::string::npos);
  EXPECT_EQ(controller->currentBag()->version(), "10");
  controller->forceFetchBag(BagDictionary{{"bag", 9}});
  test.settle();
  EXPECT_EQ(bagRequests().size(), 2u);
  EXPECT_EQ(compareNumeric("v2.10", "v2.9"), std::strong_ordering::greater);
  EXPECT_EQ(compareNumeric("007", "7"), std::strong_ordering::equal);
  EXPECT_EQ(compareNumeric("9", "10a"), std::strong_ordering::less);

  fetch(R"({"version": "11", "enabled": true})", 11);
  fetch(R"({"version": "12", "enabled": true, "agents": {"news/": {"enabled": false}}})", 12);
  fetch(R"({"version": "13", "enabled": false, "agents": {"news": {"enabled": true}}})", 13);
  EXPECT_EQ(notifier->posted.values(),
            (std::vector<std::string>{kORVNotifyDisabled, kORVNotifyEnabled, kORVNotifyDisabled,
                                      kORVNotifyEnabled}));
}

TEST_F(BagControllerTest, EndpointComesFromTheDefaultsOrTheCountry) {
  auto controller = std::make_shared<OrvexBagController>(*test.assembly);
  DefaultsStore& defaults = *test.assembly->userDefaults;
  LogCapture logs;
  defaults.setObject(kORVBagURLKey, PlistValue("https://bags.example.net/v2/bag?x=1"));
  EXPECT_EQ(controller->bagFetchURLWithCountry("US"), "https://bags.example.net/v2/bag?x=1");
  defaults.setObject(kORVBagURLKey, PlistValue(""));
  EXPECT_EQ(controller->bagFetchURLWithCountry("cn"), kORVChinaBagURL);
  EXPECT_EQ(controller->bagFetchURLWithCountry("US"), kORVDefaultBagURL);
  EXPECT_FALSE(logs.containsPrefix("Malformed"));
  defaults.setObject(kORVBagURLKey, PlistValue("not a url"));
  EXPECT_EQ(controller->bagFetchURLWithCountry("DE"), kORVDefaultBagURL);
  EXPECT_TRUE(logs.contains("Malformed orvex bag URL in user defaults key ORVBagURL"));
}

TEST_F(BagControllerTest, UnreadableDiskCopiesAreIgnoredAndReplaced) {
  test.assembly->fileManager->ensureDirectory(bagFile().parent_path());
  for (const std::string& content : {std::string("bplist00 broken"), std::string("\x01\x02")}) {
    testing::writeTextFile(bagFile(), content);
    LogCapture logs;
    BagEvents events(*test.assembly->notificationCenter);
    auto controller = makeController();
    EXPECT_TRUE(logs.containsPrefix("Error reading from bag cache: "));
    EXPECT_EQ(events.bags.size(), 0u);
    (void)controller->currentBag();
    drain(events, 1);
  }
  // A property list that is no dictionary is named by its kind.
  testing::writeBytes(bagFile(), binaryPropertyListFromJson(BagDictionary::array({"a"})));
  LogCapture logs;
  auto controller = makeController();
  EXPECT_TRUE(logs.contains("Unexpected class deserialized from bag cache: array."));
}

TEST(JsonPropertyListTest, KeepsKeyOrderAndNumberKindsDropsNulls) {
  const auto json = BagDictionary::parse(
      R"({"z": 1, "agents": {"glance": {"a": 1}, "beta": {"a": 2}, "alpha": {"a": 3}},
          "big": 18446744073709551615, "neg": -5, "real": 2.5, "gone": null,
          "list": ["x", null, true]})");
  const auto document = binaryPropertyListFromJson(json);
  ASSERT_FALSE(document.empty());
  const auto back = jsonFromPropertyList(document);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->dump(), R"({"z":1,"agents":{"glance":{"a":1},"beta":{"a":2},"alpha":{"a":3}},)"
                          R"("big":18446744073709551615,"neg":-5,"real":2.5,"list":["x",true]})");
  std::string why;
  EXPECT_TRUE(
      binaryPropertyListFromJson(BagDictionary{{"nul", std::string("a\0b", 3)}}, &why).empty());
  EXPECT_FALSE(why.empty());
}

}  // namespace
}  // namespace orvex
