#include "orvexd/feedback/client_session.h"

#include <gtest/gtest.h>

#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/persistent_storage.h"
#include "orvexd/feedback/session_privacy_filter.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

constexpr const char* kGuid = "6F1A3C2E-0000-4000-8000-000000000001";

NBSearchResult result(std::string id, uint32_t type, bool localApplication = false) {
  NBSearchResult r;
  r.identifier = std::move(id);
  r.type = type;
  r.isLocalApplicationResult = localApplication;
  return r;
}

struct SessionTest : ::testing::Test {
  SessionTest() { test.assembly->persistentStorage = storage; }

  OrvexFeedback wrap(FeedbackRecordPtr record, std::optional<std::string> guid = kGuid,
                     std::string agent = "news/1.0") {
    return OrvexFeedback::initWithFeedback(std::move(record), 3, std::move(guid), agent);
  }
  OrvexFeedback start(std::string agent = "news/1.0") {
    auto record = std::make_shared<NBStartSearchFeedback>();
    record->timestamp =
        static_cast<uint64_t>(test.platform.clock->monotonicNow().time_since_epoch().count());
    return wrap(record, kGuid, std::move(agent));
  }

  testing::TestAssembly test;
  std::shared_ptr<OrvexPersistentStorage> storage =
      std::make_shared<OrvexPersistentStorage>(*test.assembly, kORVOrvexdNameVersion);
  testing::LogCapture logs;
};

TEST_F(SessionTest, PrivacyFilteringHidesLocalIdentifiersAndReportsWhatWasNeverEngaged) {
  auto visible = std::make_shared<NBVisibleResultsFeedback>();
  visible->results =
      std::vector{result("srv-1", NBSearchResult::kTypeOrvex), result("/home/ann/tax.pdf", 2),
                  result("org.example.mail", 2, /*localApplication=*/true)};
  auto suggestions = std::make_shared<NBVisibleSuggestionsFeedback>();
  NBSearchSuggestion fromServer;
  fromServer.recordClass = NBSearchSuggestion::Class::kORVSearchSuggestion;
  fromServer.identifier = "sugg-1";
  NBSearchSuggestion fromHistory;
  fromHistory.identifier = "ann's last query";
  suggestions->suggestions = std::vector{fromServer, fromHistory};
  auto engagement = std::make_shared<NBResultEngagementFeedback>();
  engagement->result = result("/home/ann/tax.pdf", 2);

  auto session = ClientSession::initWithAssembly(*test.assembly, wrap(visible));
  session->addFeedback(wrap(suggestions));
  session->addFeedback(wrap(engagement));

  SessionPrivacyFilter filter;
  const auto filtered = session->privacyFilteredFeedbacksWithRelativeTimestamp(filter);
  ASSERT_EQ(filtered.size(), 5u);
  const auto* missingResults =
      dynamic_cast<const OrvexSessionMissingResults*>(filtered[0].feedback().get());
  const auto* missingSuggestions =
      dynamic_cast<const OrvexSessionMissingSuggestions*>(filtered[1].feedback().get());
  ASSERT_TRUE(missingResults && missingSuggestions);
  // The engaged document is not missing; the others are, with their identifiers as sent.
  ASSERT_EQ(missingResults->results.size(), 2u);
  EXPECT_EQ(missingResults->results[0].identifier, "srv-1");
  EXPECT_EQ(missingResults->results[1].identifier, "local-2");
  ASSERT_EQ(missingSuggestions->suggestions.size(), 2u);
  EXPECT_EQ(missingSuggestions->suggestions[0].identifier, "sugg-1");
  EXPECT_EQ(missingSuggestions->suggestions[1].identifier, "local-3");

  const auto& shown = dynamic_cast<const NBVisibleResultsFeedback&>(*filtered[2].feedback());
  EXPECT_EQ(shown.results->at(0).identifier, "srv-1");
  EXPECT_EQ(shown.results->at(1).identifier, "local-1");
  EXPECT_EQ(shown.results->at(2).identifier, "local-2");
  const auto& engaged = dynamic_cast<const NBResultEngagementFeedback&>(*filtered[4].feedback());
  EXPECT_EQ(engaged.result->identifier, "local-1");  // the same document, the same pseudonym
  // The session's own records are untouched.
  EXPECT_EQ(session->getSessionFeedbacks()[0].archiveData(), wrap(visible).archiveData());

  const auto upload = session->getFeedbacksToSend();
  EXPECT_EQ(upload["fb"].size(), 5u);
  EXPECT_EQ(upload["fb"][0]["type"], "session_missing_results");
  EXPECT_EQ(upload["agent"], "news/1.0");
  EXPECT_EQ(upload["user_guid"], kGuid);
  EXPECT_EQ(upload["resource_versions"], nlohmann::json::object());
  EXPECT_EQ(upload["previous_session_end_reason"], "no previous session");
  EXPECT_EQ(upload["base_time"], 1767225600);  // the virtual clock's start
  EXPECT_EQ(upload.dump().find("tax.pdf"), std::string::npos);
}

TEST_F(SessionTest, FirstUseOfTheDayIsCountedOncePerClientAndDay) {
  const int64_t daily = testing::counterValue("com.zelmor.orvexd.news.dailyactiveusers");
  const int64_t sessions = testing::counterValue("com.zelmor.orvexd.news.sessions");
  EXPECT_TRUE(ClientSession::initWithAssembly(*test.assembly, start())->firstUseOfTheDay());
  EXPECT_FALSE(ClientSession::initWithAssembly(*test.assembly, start())->firstUseOfTheDay());
  EXPECT_TRUE(test.assembly->userDefaults->dateForKey("OrvexFirstUseOfTheDay_news"));

  test.platform.clock->setWallTime(test.platform.clock->wallNow() + 24h);
  EXPECT_TRUE(ClientSession::initWithAssembly(*test.assembly, start())->firstUseOfTheDay());
  EXPECT_EQ(testing::counterValue("com.zelmor.orvexd.news.dailyactiveusers"), daily + 2);
  EXPECT_EQ(testing::counterValue("com.zelmor.orvexd.news.sessions"), sessions + 3);

  // Clients without a first-use key never have one.
  EXPECT_FALSE(
      ClientSession::initWithAssembly(*test.assembly, start("Unknown/2"))->firstUseOfTheDay());
  EXPECT_TRUE(logs.contains("user default key not found for agent: Unknown/2"));
}

TEST_F(SessionTest, FilesHoldHeaderRecordsAndGuidErrors) {
  auto session = ClientSession::initWithAssembly(*test.assembly, start(), 4);
  session->addFeedback(wrap(std::make_shared<NBStartSearchFeedback>(), "OTHER-GUID"));
  session->sessionComplete();
  auto fromError = ClientSession::createFeedbackSessionFromError(
      OrvexError(kORVErrorDomain, 500, "client state nil"), *test.assembly);
  fromError->sessionComplete();

  const auto files = storage->getAvailableSessionHandles();
  ASSERT_EQ(files.size(), 2u);
  const auto first = files[0]->read();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->session.at("previous_session_end_reason").asInteger(), 4);
  EXPECT_EQ(*first->session.at("user_guid").asString(), kGuid);
  ASSERT_EQ(first->feedbacks.size(), 3u);
  const auto& error = dynamic_cast<const NBErrorFeedback&>(*first->feedbacks[2].feedback());
  EXPECT_EQ(error.error->reason, "different guid in session");
  EXPECT_EQ(first->feedbacks[2].userGuid(), std::nullopt);

  const auto second = files[1]->read();
  ASSERT_TRUE(second);
  EXPECT_EQ(*second->session.at("agent").asString(), "orvexd/1.0");
  ASSERT_EQ(second->feedbacks.size(), 1u);
  EXPECT_EQ(second->feedbacks[0].type(), NBFeedbackType::kError);

  // Glance result features leave out the base time.
  auto custom = std::make_shared<NBCustomFeedback>();
  custom->customType = 3;
  auto glance = ClientSession::initWithAssembly(*test.assembly, wrap(custom));
  EXPECT_TRUE(glance->removeTimestamps());
  EXPECT_EQ(glance->getFeedbacksToSend()["base_time"], 0);
}

}  // namespace
}  // namespace orvex
