#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/model/network_timing_formatter.h"
#include "orvexd/model/orvex_feedback.h"
#include "orvexd/model/orvex_session_feedback.h"
#include "orvexd/platform/http_timing.h"

namespace orvex {
namespace {

using nlohmann::json;

constexpr int64_t kQueryId = 42;
constexpr uint64_t kClientQueryId = 7;
constexpr uint64_t kRelTimestamp = 1500;

template <class T>
std::shared_ptr<T> make(auto&& fill) {
  auto record = std::make_shared<T>();
  fill(*record);
  return record;
}

// A result of the daemon's back-end, and its upload object written out by hand.
NBSearchResult orvexResult() {
  NBSearchResult r;
  r.identifier = "r1";
  r.rankingScore = 0.5;
  r.type = 1;
  r.topHit = 1;
  r.sectionBundleIdentifier = "com.zelmor.web";
  r.customProperties = ORVCustomSearchResult{"fb-1"};
  r.queryId = kClientQueryId;
  r.punchout =
      NBPunchout{NBPunchout::Class::kNBPunchout, "site", {"/relative", "https://n.ex/a"}, {}};
  return r;
}
constexpr const char* kOrvexResultJson =
    R"({"id":"r1","score":0.5,"result_type":"orvex","top_hit":"tophit_should_be",
        "section_bundle_id":"com.zelmor.web","bundle_id":null,"fbr":"fb-1",
        "static_correction":false})";

NBSearchSuggestion suggestion(bool orvex) {
  NBSearchSuggestion s;
  if (orvex) {
    s = {NBSearchSuggestion::Class::kORVSearchSuggestion,
         "sg1",
         "weather paris",
         0.9,
         1,
         "weather",
         "f2"};
  } else {
    s = {NBSearchSuggestion::Class::kNBSearchSuggestion, "sg2", "weather now", 0.5, 3, {}, {}};
  }
  return s;
}
constexpr const char* kSuggestion1Json =
    R"({"id":"sg1","suggestion":"weather paris","score":0.9,"suggestion_type":"orvex","fbr":"f2"})";
constexpr const char* kSuggestion2Json =
    R"({"id":"sg2","suggestion":"weather now","score":0.5,"suggestion_type":"recents"})";

PlistDictionary timingData() {
  const auto key = [](std::string_view name) { return "_orvexTiming_" + std::string(name); };
  return {{key("fetchStart"), 100.0},
          {key("requestStart"), 100.25},
          {key("responseEnd"), 100.5004},
          {key("connectionReused"), true},
          {key("interfaceIdentifier"), "wlan0"},
          {key("peerAddress"), PlistData{16, 2, 1, 187, 192, 0, 2, 7, 0, 0, 0, 0, 0, 0, 0, 0}}};
}

struct KindCase {
  std::shared_ptr<NBFeedback> record;
  // The record's own keys; the test adds "type", "timestamp" and, unless `noQueryId`, the
  // query identifiers.
  std::string ownKeys;
  bool noQueryId = false;
};

// One record of each of the 33 kinds (and of each subclass with keys of its own), with its
// upload object written out by hand.
std::vector<KindCase> kindCases() {
  const std::string R = kOrvexResultJson;
  return {
      {make<NBVisibleResultsFeedback>([](auto& f) {
         f.triggerEvent = 2;
         f.results = std::vector{orvexResult()};
       }),
       R"({"trigger_event":"scroll","results":[)" + R + "]}"},
      {make<NBStartNetworkSearchFeedback>([](auto& f) {
         f.triggerEvent = 1;
         f.input = "cof";
         f.uuid = "u-1";
         f.headers = FeedbackStringMap{{"Accept", "application/json"}};
         f.url = "https://search.example/s?q=cof";
         f.endpoint = 6;
       }),
       R"({"trigger_event":"new_character","input":"cof","uuid":"u-1",
           "headers":{"Accept":"application/json"},"url":"https://search.example/s?q=cof",
           "endpoint_type":"orvex_search"})"},
      {make<ORVLookupStartNetworkSearchFeedback>([](auto& f) {
         f.triggerEvent = 11;
         f.input = "ox";
         f.endpoint = 6;
         f.lookupSelectionType = 2;
       }),
       R"({"trigger_event":"lookup_hint_tap","input":"ox","uuid":null,"headers":null,
           "url":null,"endpoint_type":"orvex_search"})"},
      {make<NBEndNetworkSearchFeedback>([](auto& f) {
         f.uuid = "u-1";
         f.responseSize = 2048;
         f.statusCode = 200;
         f.networkTimingData = timingData();
       }),
       R"({"uuid":"u-1","response_size":2048,"status_code":200,
           "network_timing_data":[["fetchStart",0],["requestStart",250],["responseEnd",500]],
           "connection_reused":true,"interface":"wlan0","peer_address":"192.0.2.7:443"})",
       true},
      {make<ORVEndNetworkSearchFeedback>([](auto& f) {
         f.statusCode = 500;
         f.orvexStatus = "ok";
         f.orvexDuration = 0.125;
         f.orvexPartialClientIp = "192.0.2.0";
       }),
       R"({"uuid":null,"response_size":0,"status_code":500,"network_timing_data":null,
           "orvex_status":"ok","orvex_duration":0.125,"fbq":null,
           "orvex_partial_client_ip":"192.0.2.0"})",
       true},
      {make<NBStartLocalSearchFeedback>([](auto& f) {
         f.input = "ma";
         f.indexType = 1;
       }),
       R"({"trigger_event":"unknown","input":"ma","uuid":null,"index_type":"glance"})"},
      {make<NBEndLocalSearchFeedback>([](auto& f) { f.uuid = "u-2"; }), R"({"uuid":"u-2"})", true},
      {make<NBSearchViewAppearFeedback>([](auto& f) {
         f.triggerEvent = 2;
         f.isOverApp = true;
       }),
       R"({"trigger_event":"today_view","on_lock_screen":false,"is_over_app":true})"},
      {make<NBSearchViewDisappearFeedback>([](auto& f) { f.triggerEvent = 24; }),
       R"({"trigger_event":"go_to_site"})"},
      {make<NBRankingFeedback>([](auto& f) {
         f.blendingDuration = 0.75;
         NBSectionRankingFeedback section;
         section.section = NBResultSection{"s1", 1.0, "com.zelmor.web", {}};
         section.results = std::vector{NBResultRankingFeedback{orvexResult(), 2, {}, {}}};
         f.sections = std::vector{section};
       }),
       R"({"blending_duration":0.75,"sections":[{"id":"s1","score":1.0,
           "bundle_id":"com.zelmor.web","local_section_position":0,
           "results":[)" +
           R.substr(0, R.size() - 1) + R"(,"local_result_position":2}]}]})"},
      {make<ORVRankerFeedback>([](auto& f) {
         f.rankerTimeout = true;
         f.rankerResults = 12;
         f.rankerDuration = 3.5;
       }),
       R"({"blending_duration":0.0,"sections":null,"ranker_did_rank":true,
           "ranker_timeout":true,"ranker_results":12,"ranker_duration":3.5})"},
      {make<NBResultEngagementFeedback>([](auto& f) {
         f.triggerEvent = 2;
         f.destination = 2;
         f.result = orvexResult();
       }),
       R"({"trigger_event":"tap","destination":"punchout",
           "result":{"id":"r1","action_destination":"https://n.ex/a"}})"},
      {std::make_shared<NBVisibleCardFeedback>(), "{}"},
      {make<NBCardSectionEngagementFeedback>([](auto& f) {
         f.triggerEvent = 3;
         f.actionCardType = 1;
         f.cardSection = NBCardSection{};
         f.destination = NBPunchout{NBPunchout::Class::kORVPunchout, {}, {"tel:+15550100"}, "call"};
       }),
       R"({"trigger_event":"click","card_type":"normal","action_target":"call",
           "action_destination":"tel:+15550100"})"},
      {make<NBMapsCardSectionEngagementFeedback>([](auto& f) { f.feedbackType = 2; }),
       R"({"trigger_event":"tap","card_type":"maps","action_target":"website"})"},
      {make<NBStoreCardSectionEngagementFeedback>([](auto& f) { f.productPageResult = 3; }),
       R"({"trigger_event":"tap","card_type":"songvault_sheet",
           "action_target":"user_hit_goto_store_button"})"},
      {make<NBErrorFeedback>([](auto& f) {
         f.error = OrvexError("NSURLErrorDomain", -1001, "timed out");
         f.error->underlying = std::make_shared<OrvexError>("ORVErrorDomain", 500, "");
       }),
       R"({"error":{"reason":"timed out","code":-1001,"domain":"NSURLErrorDomain"},
           "underlying_error":{"reason":null,"code":500,"domain":"ORVErrorDomain"}})"},
      {make<NBSuggestionEngagementFeedback>([](auto& f) { f.suggestion = suggestion(true); }),
       R"({"id":"sg1"})"},
      {make<NBCardViewDisappearFeedback>([](auto& f) { f.triggerEvent = 5; }),
       R"({"trigger_event":"replaced"})"},
      {make<NBStartSearchFeedback>([](auto& f) {
         f.triggerEvent = 8;
         f.input = "weather";
         f.uuid = "u-3";
         f.queryId = kClientQueryId;
       }),
       R"({"trigger_event":"suggestion","input":"weather","uuid":"u-3"})"},
      {make<NBEndSearchFeedback>([](auto& f) { f.uuid = "u-3"; }), R"({"uuid":"u-3"})"},
      {make<NBVisibleSuggestionsFeedback>([](auto& f) {
         f.suggestions = std::vector{suggestion(true), suggestion(false)};
       }),
       R"({"suggestions":[)" + std::string(kSuggestion1Json) + "," + kSuggestion2Json +
           R"(],"suggestion_query":"weather"})"},
      {make<NBCustomFeedback>([](auto& f) {
         f.jsonFeedback = {{"k", "v"}, {"n", {1, 2}}};
       }),
       R"({"k":"v","n":[1,2]})"},
      {make<NBCustomFeedback>([](auto& f) { f.customType = 2; }), "{}"},
      {make<NBCustomFeedback>([](auto& f) { f.customType = 1; }), "{}"},
      {make<NBCustomFeedback>([](auto& f) {
         f.customType = 3;
         f.jsonFeedback = {{"features", {{"f1", 0.5}}}};
       }),
       R"({"features":{"f1":0.5}})", true},
      {std::make_shared<NBFeedback>(), "{}"},
      {std::make_shared<NBResultsReceivedAfterTimeoutFeedback>(), R"({"results":null})"},
      {make<NBLateSectionsAppendedFeedback>([](auto& f) {
         f.sections = std::vector{NBResultSection{"s2", 0.25, {}, std::vector{orvexResult()}}};
       }),
       R"({"sections":[{"id":"s2","score":0.25,"bundle_id":null,"results":[)" + R + "]}]}"},
      {make<NBClearInputFeedback>([](auto& f) { f.triggerEvent = 2; }),
       R"({"trigger_event":"cut"})"},
      {make<OrvexSessionEndFeedback>([](auto& f) { f.reason = 6; }),
       R"({"reason":"engagement received"})", true},
      {make<ORVSkipSearchFeedback>([](auto& f) {
         f.triggerEvent = 1;
         f.input = "a";
       }),
       R"({"trigger_event":"less_than_minimum_query_length","input":"a"})"},
      {make<ORVCacheHitFeedback>([](auto& f) {
         f.triggerEvent = 4;
         f.input = "cof";
         f.uuid = "u-1";
       }),
       R"({"trigger_event":"cache_hit","input":"cof","uuid":"u-1"})"},
      {make<NBSectionEngagementFeedback>([](auto& f) {
         f.section = NBResultSection{"s1", 0, {}, std::vector{orvexResult()}};
         f.triggerEvent = 2;
       }),
       R"({"id":"s1","trigger_event":"show_more"})"},
      {make<NBVisibleSectionHeaderFeedback>([](auto& f) { f.sectionHeaderType = 3; }),
       R"({"section_id":null,"section_header_type":"normal"})"},
      {std::make_shared<OrvexSessionMissingResults>(), R"({"results":[]})", true},
      {std::make_shared<OrvexSessionMissingSuggestions>(
           OrvexSessionMissingSuggestions::initWithMissingSuggestions({suggestion(false)})),
       R"({"suggestions":[)" + std::string(kSuggestion2Json) + "]}", true},
      {make<NBDidGoToSiteFeedback>([](auto& f) { f.input = "news.example"; }),
       R"({"input":"news.example"})"},
      {std::make_shared<OrvexConnectionInvalidated>(), "{}", true},
  };
}

OrvexFeedback envelopeOf(const FeedbackRecordPtr& record) {
  auto envelope =
      OrvexFeedback::initWithFeedback(record, kQueryId, "guid-1", "Glance/1", kClientQueryId);
  envelope.setRelTimestamp(kRelTimestamp);
  return envelope;
}

TEST(FeedbackRecords, EveryKindEncodesItsUploadObjectAsPrescribed) {
  // The records whose client query identifier the connection wraps them with.
  const std::set<std::string_view> routed = {
      "NBVisibleResultsFeedback",       "NBRankingFeedback",           "NBResultEngagementFeedback",
      "NBLateSectionsAppendedFeedback", "NBSectionEngagementFeedback", "NBStartSearchFeedback"};
  std::set<NBFeedbackType> kinds;
  for (const KindCase& c : kindCases()) {
    SCOPED_TRACE(std::string(c.record->className()) + " " + c.ownKeys);
    json expected = json::parse(c.ownKeys);
    expected["type"] = feedbackTypeName(c.record->type());
    expected["timestamp"] = kRelTimestamp;
    if (!c.noQueryId) {
      expected["query_id"] = kQueryId;
      expected["client_query_id"] = kClientQueryId;
    }
    const FeedbackDictionary upload = envelopeOf(c.record).dictionary();
    EXPECT_EQ(upload.toJson(), expected);
    // The text written directly says the same.
    EXPECT_EQ(json::parse(upload.dump()), expected);
    EXPECT_EQ(c.record->referencedClientQueryId(),
              routed.contains(c.record->className()) ? kClientQueryId : 0);
    kinds.insert(c.record->type());
  }
  EXPECT_EQ(kinds.size(), 33u);
}

TEST(FeedbackRecords, EveryKindSurvivesDBusArchiveAndBackWithoutLoss) {
  for (const KindCase& c : kindCases()) {
    SCOPED_TRACE(c.record->className());
    c.record->timestamp = 123'456'789'000;
    const std::string text = c.record->dbusText();
    auto fromClient = NBFeedback::fromDBusText(text);
    ASSERT_TRUE(fromClient) << fromClient.error().describe() << "\n" << text;
    EXPECT_EQ(fromClient.value()->className(), c.record->className());

    const auto bytes = envelopeOf(fromClient.value()).archiveData();
    auto stored = OrvexFeedback::fromArchiveData(bytes);
    ASSERT_TRUE(stored) << stored.error().describe();
    const OrvexFeedback& envelope = stored.value();
    EXPECT_EQ(envelope.queryId(), kQueryId);
    EXPECT_EQ(envelope.clientQueryId(), kClientQueryId);
    EXPECT_EQ(envelope.userGuid(), "guid-1");
    EXPECT_EQ(envelope.userAgent(), "Glance/1");
    EXPECT_EQ(envelope.relTimestamp(), 0u);  // recomputed by the session, never archived

    EXPECT_EQ(envelope.feedback()->dbusForm(), c.record->dbusForm());
    EXPECT_EQ(envelope.feedback()->timestamp, c.record->timestamp);
    json expected = envelopeOf(c.record).dictionary().toJson();
    expected["timestamp"] = 0;
    EXPECT_EQ(envelope.dictionary().toJson(), expected);
  }
}

// What a result's upload object says for its kind, bundle identifiers and custom properties.
TEST(FeedbackRecords, SearchResultRules) {
  struct Case {
    const char* what;
    void (*change)(NBSearchResult&);
    const char* expectedKeys;  // merged over the plain result's object; "-" removes a key
  };
  const Case cases[] = {
      {"a local application result hides its bundle identifier",
       [](NBSearchResult& r) {
         r.isLocalApplicationResult = true;
         r.applicationBundleIdentifier = "org.example.Notes";
       },
       R"({"bundle_id":"com.zelmor.application"})"},
      {"one with no bundle identifier keeps null",
       [](NBSearchResult& r) { r.isLocalApplicationResult = true; }, R"({"bundle_id":null})"},
      {"the result's bundle id wins over the application's",
       [](NBSearchResult& r) {
         r.resultBundleId = "com.example.mail";
         r.applicationBundleIdentifier = "org.example.Notes";
       },
       R"({"bundle_id":"com.example.mail"})"},
      {"user activities say whether they are publicly indexable",
       [](NBSearchResult& r) {
         r.type = 4;
         r.publiclyIndexable = true;
       },
       R"({"result_type":"ns_user_activity","publicly_indexable":true,"fbr":"fb-1"})"},
      {"custom properties give fbr, null when they hold none",
       [](NBSearchResult& r) { r.customProperties = ORVCustomSearchResult{}; }, R"({"fbr":null})"},
      {"an orvex result without custom properties writes null",
       [](NBSearchResult& r) { r.customProperties.reset(); }, R"({"fbr":null})"},
      {"other kinds leave fbr out",
       [](NBSearchResult& r) {
         r.customProperties.reset();
         r.type = 2;
       },
       R"({"result_type":"local","fbr":"-"})"},
      {"features and corrections only when present",
       [](NBSearchResult& r) {
         r.localFeatures = json{{"f", 1}};
         r.correctedQuery = "coffee";
         r.staticCorrection = true;
       },
       R"({"local_features":{"f":1},"corrected_query":"coffee","static_correction":true})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    NBSearchResult result = orvexResult();
    c.change(result);
    json expected = json::parse(kOrvexResultJson);
    const json changes = json::parse(c.expectedKeys);
    for (const auto& [key, value] : changes.items()) {
      if (value == "-") {
        expected.erase(key);
      } else {
        expected[key] = value;
      }
    }
    EXPECT_EQ(FeedbackUploadWriter::dictionaryOf(result).toJson(), expected);
  }
}

// Result engagements: the "result" object, the action and where the tap led.
TEST(FeedbackRecords, EngagementRules) {
  struct Case {
    const char* what;
    void (*change)(NBResultEngagementFeedback&);
    const char* expected;
  };
  const Case cases[] = {
      {"no result: null and nothing more",
       [](NBResultEngagementFeedback& f) {
         f.result.reset();
         f.actionEngaged = true;
       },
       R"({"trigger_event":"tap","destination":"card","result":null})"},
      {"an engaged action adds its target and leads to the action's punch-out",
       [](NBResultEngagementFeedback& f) {
         f.actionEngaged = true;
         f.actionTarget = 1;
         f.result->actionPunchout = NBPunchout{NBPunchout::Class::kNBPunchout, {}, {"maps:q"}, {}};
       },
       R"({"trigger_event":"tap","destination":"card","action_target":"directions",
           "result":{"id":"r1","action_destination":"maps:q"}})"},
      {"an engaged action without a punch-out leads nowhere",
       [](NBResultEngagementFeedback& f) { f.actionEngaged = true; },
       R"({"trigger_event":"tap","destination":"card","action_target":"unknown",
           "result":{"id":"r1","action_destination":null}})"},
      {"outside engines report the title, null when it has no text",
       [](NBResultEngagementFeedback& f) {
         f.result->type = 9;
         f.result->title = NBText{};
       },
       R"({"trigger_event":"tap","destination":"card","result":{"id":"r1",
           "third_party_suggestion":null,"action_destination":"non_orvex_result"}})"},
      {"and leave it out without a title",
       [](NBResultEngagementFeedback& f) { f.result->type = 14; },
       R"({"trigger_event":"tap","destination":"card",
           "result":{"id":"r1","action_destination":"non_orvex_result"}})"},
      {"an orvex result keeps its title to itself",
       [](NBResultEngagementFeedback& f) { f.result->title = NBText{"Coffee"}; },
       R"({"trigger_event":"tap","destination":"card",
           "result":{"id":"r1","action_destination":"https://n.ex/a"}})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    NBResultEngagementFeedback f;
    f.triggerEvent = 2;
    f.destination = 1;
    f.result = orvexResult();
    c.change(f);
    EXPECT_EQ(f.dictionary().toJson(), json::parse(c.expected));
  }

  // Card sections: a description section is "more"; otherwise the destination decides.
  NBCardSectionEngagementFeedback card;
  card.cardSection = NBCardSection{NBCardSection::Class::kNBDescriptionCardSection, "d"};
  card.destination = NBPunchout{NBPunchout::Class::kORVPunchout, {}, {"https://x.ex"}, "call"};
  EXPECT_EQ(card.dictionary().toJson(),
            json::parse(R"({"trigger_event":"unknown","card_type":"unknown",
                            "action_target":"more"})"));
  card.cardSection.reset();
  card.destination->recordClass = NBPunchout::Class::kNBPunchout;
  EXPECT_EQ(card.dictionary().toJson(),
            json::parse(R"({"trigger_event":"unknown","card_type":"unknown",
                            "action_target":"unknown","action_destination":"https://x.ex"})"));
  card.destination.reset();
  EXPECT_EQ(card.dictionary().toJson()["action_destination"], nullptr);
}

// Collects the error lines of the feedback error log.
class ErrorLog {
 public:
  ErrorLog()
      : token_(addLogObserver([this](const LogRecord& record) {
          if (record.category == "Orvex_Feedback_Errors" && record.level == LogLevel::kError) {
            ++lines;
          }
        })) {}
  int lines = 0;

 private:
  LogObserverToken token_;
};

void expectRefused(const OrvexError& error, const std::string& reason) {
  EXPECT_EQ(error.domain, "ORVErrorDomain");
  EXPECT_EQ(error.code, 500);
  EXPECT_NE(error.reason.find(reason), std::string::npos) << error.reason;
}

// Anything malformed from a client is an error value and one log line, never a record.
TEST(FeedbackRecords, MalformedDBusFormsAreRefusedWithTheirReason) {
  NBVisibleResultsFeedback valid;
  valid.results = std::vector{orvexResult()};
  const json base = valid.dbusForm();
  struct Case {
    void (*change)(json&);
    const char* reason;
  };
  const Case cases[] = {
      {[](json& j) { j = json::array(); }, "not an object"},
      {[](json& j) { j.erase("$class"); }, "$class: missing"},
      {[](json& j) { j["$class"] = 7; }, "$class: not a string"},
      {[](json& j) { j["$class"] = "NBNothing"; }, "\"NBNothing\" is no feedback record class"},
      {[](json& j) { j.erase("trigger_event"); }, "trigger_event: missing"},
      {[](json& j) { j["trigger_event"] = 15; }, "trigger_event: 15 is outside its table of 15"},
      {[](json& j) { j["trigger_event"] = -1; }, "trigger_event: out of range"},
      {[](json& j) { j["timestamp"] = "1"; }, "timestamp: not an integer"},
      {[](json& j) { j["timestamp"] = 1.5; }, "timestamp: not an integer"},
      {[](json& j) { j["results"] = json::object(); }, "results: not an array"},
      {[](json& j) { j["results"][0]["result_type"] = 99; }, "results[0].result_type: 99 is"},
      {[](json& j) { j["results"][0]["$class"] = "NBResultSection"; },
       "results[0].$class: \"NBResultSection\" does not belong here"},
      {[](json& j) { j["results"][0].erase("score"); }, "results[0].score: missing"},
      {[](json& j) { j["results"][0]["score"] = "high"; }, "results[0].score: not a number"},
      {[](json& j) { j["results"][0]["id"] = std::string("a\0b", 3); }, "text holding NUL"},
      {[](json& j) { j["results"][0]["customProperties"] = json::array(); },
       "results[0].customProperties: not an object"},
      {[](json& j) { j["results"][0]["punchout"]["urls"] = {1}; },
       "results[0].punchout.urls[0]: not a string"},
      {[](json& j) {
         j = {{"$class", "NBCustomFeedback"},
              {"timestamp", 1},
              {"customType", 4},
              {"jsonFeedback", {1}}};
       },
       "jsonFeedback: not an object"},
      {[](json& j) {
         j = {{"$class", "NBEndNetworkSearchFeedback"},
              {"timestamp", 1},
              {"response_size", 1},
              {"status_code", 200},
              {"network_timing_data", {{"p", {{"$data", "!!"}}}}}};
       },
       "network_timing_data: bytes that are not base64"},
      {[](json& j) {
         j = {{"$class", "NBErrorFeedback"}, {"timestamp", 1}};
         json error = {{"domain", "d"}, {"code", 1}, {"reason", "r"}};
         for (int i = 0; i < 80; ++i)
           error = {{"domain", "d"}, {"code", 1}, {"reason", "r"}, {"underlying", error}};
         j["error"] = error;
       },
       "nested too deeply"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    json form = base;
    c.change(form);
    ErrorLog log;
    auto read = NBFeedback::fromDBusText(form.dump());
    ASSERT_FALSE(read);
    expectRefused(read.error(), c.reason);
    EXPECT_EQ(log.lines, 1);
  }

  // Not JSON at all, or nested past any record.
  EXPECT_FALSE(NBFeedback::fromDBusText("{\"$class\": "));
  expectRefused(NBFeedback::fromDBusText(std::string(100000, '[')).error(), "not JSON text");
  expectRefused(NBFeedback::fromDBusText(std::string(300, '[') + std::string(300, ']')).error(),
                "nested too deeply");
  // Keys a record does not know are no reason to refuse it.
  json newer = base;
  newer["added_later"] = {1, 2};
  EXPECT_TRUE(NBFeedback::fromDBusForm(newer));
}

TEST(FeedbackRecords, MalformedArchivesAreRefusedWithTheirReason) {
  NBClearInputFeedback record;
  record.triggerEvent = 1;
  const PlistDictionary base =
      OrvexFeedback::initWithFeedback(std::make_shared<NBClearInputFeedback>(record), 3, {}, "a")
          .archiveForm();
  struct Case {
    void (*change)(PlistDictionary&);
    const char* reason;
  };
  const Case cases[] = {
      {[](PlistDictionary& d) { d["$class"] = "NSObject"; }, "$class: not \"OrvexFeedback\""},
      {[](PlistDictionary& d) { d.erase("feedback"); }, "feedback: missing"},
      {[](PlistDictionary& d) { d.erase("query_id"); }, "query_id: missing"},
      {[](PlistDictionary& d) { d["user_agent"] = 5; }, "user_agent: not a string"},
      {[](PlistDictionary& d) { d["_clientQueryId"] = -2; }, "_clientQueryId: out of range"},
      {[](PlistDictionary& d) { (*d["feedback"].asDictionary())["trigger_event"] = 1.0; },
       "feedback: invalid feedback record: trigger_event: not an integer"},
      {[](PlistDictionary& d) {
         d["feedback"] = PlistDictionary{{"$class", "NBCustomFeedback"},
                                         {"timestamp", 1},
                                         {"customType", 0},
                                         {"jsonFeedback", "{oops"}};
       },
       "jsonFeedback: not JSON text"},
      {[](PlistDictionary& d) {
         d["feedback"] =
             PlistDictionary{{"$class", "NBEndNetworkSearchFeedback"},
                             {"timestamp", 1},
                             {"response_size", 1},
                             {"status_code", 200},
                             {"network_timing_data", PlistDictionary{{"when", PlistDate{}}}}};
       },
       "a date"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    PlistDictionary form = base;
    c.change(form);
    auto read = OrvexFeedback::fromArchiveData(
        serializePropertyList(PlistValue(form), PlistFormat::kBinary));
    ASSERT_FALSE(read);
    expectRefused(read.error(), c.reason);
  }
  const std::vector<uint8_t> garbage = {'b', 'p', 'l', 'i', 's', 't', '0', '0', 1, 2};
  expectRefused(OrvexFeedback::fromArchiveData(garbage).error(), "not a property list");
  expectRefused(OrvexFeedback::fromArchiveForm(PlistValue(PlistArray{})).error(),
                "not a dictionary");
}

PlistDictionary timing(std::initializer_list<std::pair<const std::string, PlistValue>> entries) {
  PlistDictionary out;
  for (const auto& [name, value] : entries) out.emplace("_orvexTiming_" + name, value);
  return out;
}

TEST(FeedbackRecords, NetworkTimingFormatter) {
  struct Case {
    const char* what;
    PlistDictionary timing;
    const char* expected;
  };
  const Case cases[] = {
      {"statistics only",
       timing({{"connectionStartTimeCounts", PlistDictionary{{"_orvexTiming_StatsConnects", 3},
                                                             {"_orvexTiming_StatsZero", 0},
                                                             {"_orvexTiming_StatsHalf", 0.5},
                                                             {"_orvexTiming_StatsText", "x"},
                                                             {"short", 1}}},
               {"tcpFastOpenStats", PlistDictionary{{"a", "b"}, {"n", 0}}}}),
       R"([["connectionStartTimeCounts",{"Connects":3}],["tcpFastOpenStats",{"a":"b","n":0}]])"},
      {"zero times dropped, the earliest is 0, whole milliseconds",
       timing({{"responseEnd", 10.0016},
               {"fetchStart", 10.0},
               {"connectEnd", 0},
               {"requestStart", 10.0004},
               {"connectionStopTimeCounts", PlistDictionary{{"_orvexTiming_StatsResets", 2}}}}),
       R"([["fetchStart",0],["requestStart",0],["responseEnd",2],
           ["connectionStopTimeCounts",{"Resets":2}]])"},
      {"nothing to report",
       timing({{"connectionReused", true}, {"other", 5}, {"fetchStart", "soon"}}), "null"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(formatNetworkTimingData(c.timing).toJson(), json::parse(c.expected));
  }

  // What the HTTP layer makes of a fresh TLS transfer, as the end-of-search record uploads it.
  CurlTransferMetrics metrics;
  metrics.nameLookupUs = 1000;
  metrics.connectUs = 3000;
  metrics.appConnectUs = 8000;
  metrics.preTransferUs = 8400;
  metrics.startTransferUs = 20000;
  metrics.totalUs = 25000;
  metrics.numConnects = 1;
  metrics.tls = true;
  metrics.primaryIp = "2001:db8::1";
  metrics.primaryPort = 443;
  NBEndNetworkSearchFeedback end;
  end.networkTimingData =
      makeTaskTimingData(WallTime(std::chrono::seconds(1'700'000'000)), metrics);
  EXPECT_EQ(end.dictionary().toJson(), json::parse(R"({"uuid":null,"response_size":0,
      "status_code":0,"connection_reused":false,"peer_address":"[2001:db8::1]:443",
      "network_timing_data":[["domainLookupStart",0],["fetchStart",0],["connectStart",1],
        ["domainLookupEnd",1],["connectEnd",3],["secureConnectionStart",3],
        ["secureConnectionEnd",8],["requestEnd",8],["requestStart",8],["responseStart",20],
        ["responseEnd",25]]})"));
}

TEST(FeedbackRecords, PeerAddresses) {
  const auto ipv4 = *encodeBsdSocketAddress("192.0.2.7", 443);
  const auto ipv6 = *encodeBsdSocketAddress("2001:db8::1", 443);
  EXPECT_EQ(formatPeerAddress(ipv4), "192.0.2.7:443");
  EXPECT_EQ(formatPeerAddress(ipv6), "[2001:db8::1]:443");
  EXPECT_EQ(formatPeerAddress(std::span(ipv4).first(15)), "");
  EXPECT_EQ(formatPeerAddress(std::span(ipv6).first(20)), "");  // too short for the address
  auto other = ipv4;
  other[1] = 1;
  EXPECT_EQ(formatPeerAddress(other), "");
}

class RecordingHelper : public SessionProcessingHelper {
 public:
  std::optional<std::string> replacementForIdentifier(std::string_view id) override {
    if (id == "r1") return "p1";
    return std::nullopt;
  }
  void identifierReferenced(std::string_view id, const NBSearchResult&) override {
    seen.push_back("result " + std::string(id));
  }
  void identifierReferenced(std::string_view id, const NBSearchSuggestion&) override {
    seen.push_back("suggestion " + std::string(id));
  }
  void identifierExpanded(std::string_view id) override {
    seen.push_back("expanded " + std::string(id));
  }
  std::vector<NBSearchResult> missingResults() override { return {}; }
  std::vector<NBSearchSuggestion> missingSuggestions() override { return {}; }
  std::vector<std::string> seen;
};

TEST(FeedbackRecords, EnvelopeTimestampsOrderingProcessingAndProperties) {
  auto start = std::make_shared<NBStartSearchFeedback>();
  start->timestamp = 2'500'000'000;  // 2500 ms of the record's own clock
  start->queryId = 9;
  auto envelope = OrvexFeedback::initWithFeedback(start, 5, {}, "news/1.0");
  envelope.setRelTimestamp(40);
  EXPECT_EQ(envelope.dictionary().toJson()["timestamp"], 40);
  const json description = json::parse(envelope.description());
  EXPECT_EQ(description["timestamp"], 2500);
  EXPECT_EQ(description["query_id"], 5);
  EXPECT_FALSE(description.contains("client_query_id"));  // 0 is none
  EXPECT_EQ(start->referencedClientQueryId(), 9u);

  // Ordered by the records' own clocks.
  std::vector<OrvexFeedback> envelopes;
  for (uint64_t t : {30, 10, 20}) {
    auto record = std::make_shared<NBFeedback>();
    record->timestamp = t;
    envelopes.push_back(OrvexFeedback::initWithFeedback(record, 0, {}, ""));
  }
  std::sort(envelopes.begin(), envelopes.end(), [](const auto& a, const auto& b) {
    return OrvexFeedback::timeStampComparator(a, b) < 0;
  });
  EXPECT_EQ(envelopes.front().feedback()->timestamp, 10u);
  EXPECT_TRUE(OrvexFeedback::timeStampComparator(envelopes[1], envelopes[1]) == 0);

  // Processing reports every result and the engaged one, and rewrites on a copy.
  auto engagement = std::make_shared<NBResultEngagementFeedback>();
  engagement->result = orvexResult();
  RecordingHelper helper;
  const auto processed =
      OrvexFeedback::initWithFeedback(engagement, 1, {}, "Glance/1").process(helper);
  EXPECT_EQ(helper.seen, (std::vector<std::string>{"expanded r1", "result r1"}));
  EXPECT_EQ(processed.dictionary().toJson()["result"]["id"], "p1");
  EXPECT_EQ(engagement->result->identifier, "r1");
  auto suggestions = std::make_shared<NBVisibleSuggestionsFeedback>();
  suggestions->suggestions = std::vector{suggestion(false)};
  const auto unchanged = OrvexFeedback::initWithFeedback(suggestions, 1, {}, "").process(helper);
  EXPECT_EQ(unchanged.feedback(), suggestions);
  EXPECT_EQ(helper.seen.back(), "suggestion sg2");

  const auto properties = dictionaryWithPropertiesOfObject(envelope);
  EXPECT_EQ(properties.at("userGuid"), "");
  EXPECT_EQ(properties.at("queryId"), "5");
  EXPECT_EQ(properties.at("relTimestamp"), "40");
  const auto fields = dictionaryWithPropertiesOfObject(*start);
  EXPECT_EQ(fields.at("input"), "");
  EXPECT_EQ(fields.at("queryId"), "9");
  EXPECT_EQ(fields.at("timestamp"), "2500000000");

  // A nil record is logged and kept as an empty base record, never dereferenced.
  const auto empty = OrvexFeedback::initWithFeedback(nullptr, 1, {}, "");
  EXPECT_EQ(empty.type(), NBFeedbackType::kUnknown);

  const auto keys = OrvexFeedback::sharedKeySet();
  ASSERT_EQ(keys.size(), 99u);
  EXPECT_EQ(keys[5], "search_start");
  EXPECT_EQ(keys[33], "type");
  EXPECT_EQ(keys.back(), "orvex");
  EXPECT_EQ(OrvexFeedback::eventTypeToString(32), "connection_invalidated");
  EXPECT_EQ(OrvexFeedback::eventTypeToString(33), std::nullopt);
}

// Text the daemon got from elsewhere (a server's header, say) may not be UTF-8: it is
// written as U+FFFD rather than losing the record.
TEST(FeedbackRecords, TextThatIsNotUtf8StillUploadsAndArchives) {
  auto start = std::make_shared<NBStartNetworkSearchFeedback>();
  start->headers = FeedbackStringMap{{"X-Odd", std::string("caf\xe9\0", 5)}};
  start->input = "quote \" backslash \\ tab \t bell \x07";
  const auto envelope = OrvexFeedback::initWithFeedback(start, 1, {}, "ua");
  const json upload = json::parse(envelope.dictionary().dump());
  EXPECT_EQ(upload["headers"]["X-Odd"], std::string("caf\xEF\xBF\xBD\0", 7));
  EXPECT_EQ(upload["input"], *start->input);
  auto stored = OrvexFeedback::fromArchiveData(envelope.archiveData());
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored.value().dictionary().toJson()["headers"]["X-Odd"],
            "caf\xEF\xBF\xBD\xEF\xBF\xBD");
}

}  // namespace
}  // namespace orvex
