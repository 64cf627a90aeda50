#include <gtest/gtest.h>

#include <future>

#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/background_activities_manager.h"
#include "orvexd/feedback/client_session.h"
#include "orvexd/feedback/orvex_feedback_flusher.h"
#include "orvexd/feedback/persistent_storage.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/network/network_request_factory.h"
#include "orvexd/platform/activity_scheduler.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/language_detector.h"
#include "tests/support/fixed_locale.h"
#include "tests/support/loopback_http_server.h"
#include "tests/support/test_assembly.h"
#include "tests/support/upload_body.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using testing::counterValue;
using Response = testing::LoopbackHttpServer::Response;

// The flushers and the manager over real session files, uploading to a loopback server. (Stopped
// runs, refused and late uploads: the end-to-end upload test, through the daemon.)
struct FlusherTest : ::testing::Test {
  FlusherTest() {
    OrvexDiagnosticDataReporter::resetAllForTesting();
    HttpSessionConfiguration configuration;
    configuration.identifier = "upload";
    assembly.uploadSession = std::make_shared<HttpSession>(configuration, *test.platform.pool,
                                                           *test.platform.clock, tmp.string());
    DeviceContextServices services;
    services.locale = std::make_unique<testing::FixedLocale>();
    services.language = makeLanguageDetector();
    auto factory = std::make_shared<ORVNetworkRequestFactory>(assembly, std::move(services));
    factory->start();
    assembly.requestFactory = factory;
    server.handle("POST", "/fb", [](const testing::RecordedRequest&) { return Response{}; });
    server.handle("POST", "/cs", [](const testing::RecordedRequest&) { return Response{}; });
  }
  ~FlusherTest() override {
    assembly.uploadSession.reset();  // its idle connections would hold the server's workers
  }

  // Made once the session directory holds what the test put there.
  void startComponents() {
    storage = std::make_shared<OrvexPersistentStorage>(assembly, kORVOrvexdNameVersion);
    assembly.persistentStorage = storage;
    assembly.activityScheduler =
        std::make_shared<ActivityScheduler>(*test.platform.pool, *test.platform.clock);
    crowdsourcing = OrvexFeedbackFlusher::initWithAssembly(assembly, 0);
    assembly.crowdsourcingFeedbackFlusher = crowdsourcing;
    manager = BackgroundActivitiesManager::initWithAssembly(assembly);
    assembly.backgroundFlusher = manager;
  }
  void postBag(bool feedbackEnabled) {
    assembly.notificationCenter->post(
        kORVBagChangeNotification, nullptr,
        {{"bag", ORVBag::initWithDictionary({{"feedback_enabled", feedbackEnabled},
                                             {"feedback_url", server.baseUrl() + "/fb?x=1"},
                                             {"crowdsourcing_url", server.baseUrl() + "/cs?k=1"}},
                                            "")}});
  }
  OrvexFeedback startRecord() {
    auto record = std::make_shared<NBStartSearchFeedback>();
    record->timestamp = monotonicNanoseconds(test.platform.clock->monotonicNow());
    return OrvexFeedback::initWithFeedback(record, 3, "6F1A3C2E-0000-4000-8000-000000000001",
                                           "news/1.0");
  }
  // A finished session of two records, the second 5 s after the first.
  void writeSession() {
    auto session = ClientSession::initWithAssembly(assembly, startRecord());
    test.advance(5s);
    (void)session->addFeedback(startRecord());
    session->sessionComplete();
    test.settle();
  }
  void flushActivity() {
    std::promise<void> done;
    manager->insertFlushActivity([&done] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(30s), std::future_status::ready);
  }
  testing::TestAssembly test;
  Assembly& assembly = *test.assembly;
  const std::filesystem::path tmp = test.directory / "tmp";
  const std::filesystem::path sessions = test.directory / "cache" / "com.zelmor.orvexd";
  testing::LoopbackHttpServer server;
  std::shared_ptr<OrvexPersistentStorage> storage;
  std::shared_ptr<OrvexFeedbackFlusher> crowdsourcing;
  std::shared_ptr<BackgroundActivitiesManager> manager;
};

TEST_F(FlusherTest, EndpointsFollowTheBag) {
  startComponents();
  postBag(true);
  EXPECT_EQ(manager->feedbackFlusher()->serverEndpoint(), server.baseUrl() + "/fb?v=2");
  EXPECT_EQ(crowdsourcing->serverEndpoint(), server.baseUrl() + "/cs?k=1");
  postBag(false);
  EXPECT_EQ(manager->feedbackFlusher()->serverEndpoint(), std::nullopt);
  EXPECT_EQ(crowdsourcing->serverEndpoint(), std::nullopt);
}

TEST_F(FlusherTest, WithoutAnEndpointThePassEmptiesTheBufferAndSendsNothing) {
  startComponents();
  auto flusher = manager->feedbackFlusher();
  flusher->flush(ClientSession::initWithAssembly(assembly, startRecord()), nullptr);
  const auto bodies = flusher->flushToWireSync();
  ASSERT_EQ(bodies.size(), 1u);
  EXPECT_EQ(nlohmann::json::parse(
                testing::inflateRaw(std::string(bodies[0].begin(), bodies[0].end())))["agent"],
            "news/1.0");
  EXPECT_EQ(flusher->countOfDatabuffer(), 0u);
  EXPECT_TRUE(std::filesystem::is_empty(tmp));
  EXPECT_EQ(assembly.uploadSession->outstandingTaskCount(), 0u);
  EXPECT_EQ(server.requestCount(), 0u);
}

// Two session files, one of them corrupt, and crowdsourcing records, one of them not JSON.
TEST_F(FlusherTest, AFlushActivityUploadsEveryReadableFileAndDeletesThemAll) {
  std::filesystem::create_directories(sessions);
  testing::writeTextFile(sessions / "session.1", "not a session file");
  startComponents();
  writeSession();
  storage->keepCrowdsourcingRecord(R"({"query":"weather"})");
  storage->keepCrowdsourcingRecord("{");
  postBag(true);
  flushActivity();

  EXPECT_TRUE(std::filesystem::is_empty(sessions)) << "read or not, every file is tried once";
  EXPECT_TRUE(std::filesystem::is_empty(tmp));
  ASSERT_TRUE(server.waitForRequests(2, 10s));
  const auto requests = server.requests();
  const auto& upload = requests[0].path == "/fb" ? requests[0] : requests[1];
  const auto& custom = requests[0].path == "/fb" ? requests[1] : requests[0];
  EXPECT_NE(upload.rawQuery.find("v=2"), std::string::npos);
  EXPECT_EQ(upload.rawQuery.find("x=1"), std::string::npos);
  EXPECT_EQ(upload.headers.at("Content-Encoding"), "deflate");
  const std::string json = testing::inflateRaw(upload.body);
  EXPECT_EQ(upload.headers.at("X-Zelmor-Digest"), testing::sha512Hex(json));
  const auto session = nlohmann::json::parse(json);
  ASSERT_EQ(session["fb"].size(), 2u);
  EXPECT_EQ(session["fb"][1]["timestamp"], 5000) << "times relative to the session start";
  EXPECT_NE(custom.rawQuery.find("k=1"), std::string::npos);
  EXPECT_EQ(testing::inflateRaw(custom.body), R"({"query":"weather"})");
  EXPECT_EQ(counterValue(kORVCounterRecordsDropped), 1);
  ASSERT_TRUE(testing::eventually([] { return counterValue(kORVCounterFeedbackSent) == 7; }));
}

}  // namespace
}  // namespace orvex
