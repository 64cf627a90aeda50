#include <gtest/gtest.h>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/model/orvex_feedback.h"

namespace orvex {
namespace {

using nlohmann::json;

constexpr int64_t kQueryId = 42;
constexpr uint64_t kClientQueryId = 7;

OrvexFeedback envelopeOf(const FeedbackRecordPtr& record) {
  auto envelope =
      OrvexFeedback::initWithFeedback(record, kQueryId, "guid-1", "Glance/1", kClientQueryId);
  envelope.setRelTimestamp(1500);
  return envelope;
}

// Sets every field of a record, nested records and lists included, to a value other than its
// default, so that a field a form drops or misreads shows.
class FillEverything : public feedback_codec::PassesOverUploadEntries {
 public:
  void operator()(std::string_view, auto& value, const auto&...) { fill(value); }
  void enumeration(std::string_view, uint32_t& value, FeedbackTable table, const auto&...) {
    value = static_cast<uint32_t>(table.size() - 1);
  }

 private:
  void fill(bool& value) { value = true; }
  void fill(std::integral auto& value) { value = static_cast<uint8_t>(++counter_); }
  void fill(double& value) { value = ++counter_ + 0.5; }
  void fill(std::string& value) { value = "text " + std::to_string(++counter_); }
  void fill(FeedbackStringMap& value) { value = {{"Accept", "text/html"}, {"X-Count", "2"}}; }
  void fill(PlistDictionary& value) {
    value = {{"_orvexTiming_fetchStart", 10.5}, {"_orvexTiming_peerAddress", PlistData{16, 2}}};
  }
  void fill(json& value) { value = {{"k", {1, "two", nullptr}}}; }
  void fill(OrvexError& value) {
    value = OrvexError("NSURLErrorDomain", -1001, "timed out");
    value.underlying = std::make_shared<OrvexError>("ORVErrorDomain", 500, "");
  }
  template <class T>
  void fill(std::optional<T>& value) {
    fill(value.emplace());
  }
  template <class T>
  void fill(std::vector<T>& value) {
    value.resize(depth_ < 3 ? 2 : 0);
    for (auto& element : value) fill(element);
  }
  template <feedback_codec::NestedRecord T>
  void fill(T& record) {
    if constexpr (requires { record.recordClass; }) {
      record.recordClass = static_cast<decltype(record.recordClass)>(T::kClassNames.size() - 1);
    }
    ++depth_;
    T::visit(*this, record);
    --depth_;
  }

  int counter_ = 0;
  int depth_ = 0;
};

template <class... T>
std::vector<FeedbackRecordPtr> filledIn(FeedbackRecordClasses<T...>) {
  FillEverything fill;
  const auto filled = [&fill]<class R>(std::shared_ptr<R> record) {
    R::visit(fill, *record);
    return FeedbackRecordPtr(std::move(record));
  };
  return {filled(std::make_shared<T>())...};
}

TEST(FeedbackRecords, EveryClassFilledInSurvivesEveryForm) {
  const auto records = filledIn(AllFeedbackRecordClasses());
  for (const auto& record : records) {
    SCOPED_TRACE(record->className());
    auto fromClient = NBFeedback::fromDBusText(record->dbusText());
    ASSERT_TRUE(fromClient) << fromClient.error().describe() << "\n" << record->dbusText();
    auto stored = OrvexFeedback::fromArchiveData(envelopeOf(fromClient.value()).archiveData());
    ASSERT_TRUE(stored) << stored.error().describe();
    // Written field by field, the archive is the document of its dictionary form.
    EXPECT_EQ(envelopeOf(record).archiveData(),
              serializePropertyList(envelopeOf(record).archiveForm(), PlistFormat::kBinary));
    OrvexFeedback envelope = stored.value();
    EXPECT_EQ(envelope.relTimestamp(), 0u);  // recomputed by the session, never archived
    envelope.setRelTimestamp(1500);
    EXPECT_EQ(envelope.feedback()->className(), record->className());
    EXPECT_EQ(envelope.feedback()->dbusForm(), record->dbusForm());
    EXPECT_EQ(envelope.feedback()->referencedClientQueryId(), record->referencedClientQueryId());
    EXPECT_EQ(dictionaryWithPropertiesOfObject(envelope),
              dictionaryWithPropertiesOfObject(envelopeOf(record)));

    const FeedbackDictionary upload = envelopeOf(record).dictionary();
    EXPECT_EQ(envelope.dictionary().dump(), upload.dump());
    const json expected = upload.toJson();
    EXPECT_EQ(json::parse(upload.dump()), expected);  // the text says what the dictionary says
    EXPECT_EQ(expected["type"], feedbackTypeName(record->type()));
    EXPECT_EQ(expected.contains("query_id"), record->requiresQueryId());
  }
}

// A result of the daemon's back-end.
NBSearchResult orvexResult() {
  NBSearchResult r;
  r.identifier = "r1";
  r.rankingScore = 0.5;
  r.type = NBSearchResult::kTypeOrvex;
  r.topHit = 1;
  r.sectionBundleIdentifier = "com.zelmor.web";
  r.customProperties = ORVCustomSearchResult{"fb-1"};
  r.queryId = kClientQueryId;
  r.punchout = NBPunchout{NBPunchout::Class::kNBPunchout, {}, {"/relative", "https://n.ex/a"}, {}};
  return r;
}
const std::string kResultJson =
    R"({"id":"r1","score":0.5,"result_type":"orvex","top_hit":"tophit_should_be",)"
    R"("section_bundle_id":"com.zelmor.web","bundle_id":null,"fbr":"fb-1",)"
    R"("static_correction":false})";

NBSearchSuggestion suggestion(bool orvex) {
  if (!orvex) return {{}, "sg2", "weather now", 0.5, 3, {}, {}};
  return {NBSearchSuggestion::Class::kORVSearchSuggestion, "sg1", "paris", 0.9, 1, "par", "f2"};
}

template <class T>
std::shared_ptr<T> make(auto&& fill) {
  auto record = std::make_shared<T>();
  fill(*record);
  return record;
}

// The upload text, to the byte, of records that between them take every way of uploading a
// field, and the client query identifier each is about.
TEST(FeedbackRecords, UploadTextOfRepresentativeRecords) {
  const auto read = [](std::string_view text) { return NBFeedback::fromDBusText(text).value(); };
  // The envelope's keys, the query identifiers only where the record wants them.
  const auto end = [](const char* type, bool ids = true) {
    return std::string(ids ? R"(,"query_id":42,"client_query_id":7)" : "") + R"(,"type":")" + type +
           R"(","timestamp":1500})";
  };
  const std::string result(kResultJson);
  const struct {
    FeedbackRecordPtr record;
    std::string expected;
    uint64_t referencedClientQueryId = 0;
  } cases[] = {
      {make<ORVRankerFeedback>([](auto& f) {
         f.blendingDuration = 0.75;
         const NBResultRankingFeedback ranked{orvexResult(), 2, std::vector<NBSearchResult>{}, {}};
         f.sections = {{{NBResultSection{"s1", 1.0, "com.zelmor.web", {}}, 3, {{ranked}}}}};
         f.rankerResults = 12;
       }),
       R"({"blending_duration":0.75,"sections":[{"id":"s1","score":1.0,)"
       R"("bundle_id":"com.zelmor.web","results":[)" +
           result.substr(0, result.size() - 1) +
           R"(,"local_result_position":2,"hidden_results":[]}],"local_section_position":3}],)"
           R"("ranker_did_rank":true,"ranker_timeout":false,"ranker_results":12,)"
           R"("ranker_duration":0.0)" +
           end("rank_sections"),
       kClientQueryId},
      {read(
           R"({"$class":"ORVLookupStartNetworkSearchFeedback","timestamp":1,"trigger_event":11,)"
           R"("queryId":9,"headers":{"Accept":"json"},"endpoint_type":0,"lookupSelectionType":2})"),
       R"({"trigger_event":"lookup_hint_tap","input":null,"uuid":null,)"
       R"("headers":{"Accept":"json"},"url":null,"endpoint_type":"unknown")" +
           end("network_search_start"),
       9},
      // The peer address is 192.0.2.7:443 in the BSD layout.
      {read(R"({"$class":"ORVEndNetworkSearchFeedback","timestamp":1,"response_size":0,)"
            R"("status_code":200,"orvex_duration":0.125,"orvex_partial_client_ip":"192.0.2.0",)"
            R"("network_timing_data":{"_orvexTiming_fetchStart":100.0,)"
            R"("_orvexTiming_requestStart":100.25,"_orvexTiming_responseEnd":100.5004,)"
            R"("_orvexTiming_connectionReused":true,"_orvexTiming_interfaceIdentifier":"en",)"
            R"("_orvexTiming_peerAddress":{"$data":"EAIBu8AAAgcAAAAAAAAAAA=="}}})"),
       R"({"uuid":null,"response_size":0,"status_code":200,"network_timing_data":)"
       R"([["fetchStart",0],["requestStart",250],["responseEnd",500]],)"
       R"("connection_reused":true,"interface":"en","peer_address":"192.0.2.7:443",)"
       R"("orvex_status":null,"orvex_duration":0.125,"fbq":null,)"
       R"("orvex_partial_client_ip":"192.0.2.0")" +
           end("network_search_end", false)},
      {make<NBVisibleSuggestionsFeedback>([](auto& f) {
         f.suggestions = {{suggestion(true), suggestion(false)}};
       }),
       R"({"suggestions":[{"id":"sg1","suggestion":"paris","score":0.9,)"
       R"("suggestion_type":"orvex","fbr":"f2"},{"id":"sg2","suggestion":"weather now",)"
       R"("score":0.5,"suggestion_type":"recents"}],"suggestion_query":"par")" +
           end("visible_suggestions")},
      {read(
           R"({"$class":"NBErrorFeedback","timestamp":1,"error":{"domain":"NSURLErrorDomain",)"
           R"("code":-1001,"reason":"timed out","underlying":{"domain":"","code":5,"reason":""}}})"),
       R"({"error":{"reason":"timed out","code":-1001,"domain":"NSURLErrorDomain"},)"
       R"("underlying_error":{"reason":null,"code":5,"domain":null})" +
           end("error")},
      {read(R"({"$class":"NBCustomFeedback","timestamp":1,"customType":3,)"
            R"("jsonFeedback":{"type":"mine","features":{"f1":0.5}}})"),
       R"({"features":{"f1":0.5})" + end("custom_glance_result_features", false)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.record->className());
    EXPECT_EQ(envelopeOf(c.record).dictionary().dump(), c.expected);
    EXPECT_EQ(c.record->referencedClientQueryId(), c.referencedClientQueryId);
  }
}

// What a result's upload object says for its kind, bundle identifiers and custom properties.
TEST(FeedbackRecords, SearchResultRules) {
  NBSearchResult r = orvexResult();
  const auto upload = [&r] { return FeedbackUploadWriter::dictionaryOf(r).toJson(); };
  EXPECT_EQ(upload(), json::parse(kResultJson));
  r.isLocalApplicationResult = true;  // with no bundle identifier to hide
  EXPECT_EQ(upload()["bundle_id"], nullptr);
  r.applicationBundleIdentifier = "org.example.Notes";
  EXPECT_EQ(upload()["bundle_id"], "com.zelmor.application");
  r.isLocalApplicationResult = false;
  EXPECT_EQ(upload()["bundle_id"], "org.example.Notes");
  r.resultBundleId = "com.example.mail";  // wins over the application's
  EXPECT_EQ(upload()["bundle_id"], "com.example.mail");

  // A result of the back-end always says its fbr, other kinds only with custom properties.
  r.customProperties = ORVCustomSearchResult{};
  EXPECT_EQ(upload()["fbr"], nullptr);
  r.customProperties.reset();
  EXPECT_EQ(upload()["fbr"], nullptr);
  r.type = NBSearchResult::kTypeNSUserActivity;  // which alone say if publicly indexable
  EXPECT_FALSE(upload().contains("fbr"));
  EXPECT_EQ(upload()["publicly_indexable"], false);
  r.type = 2;
  EXPECT_FALSE(upload().contains("publicly_indexable"));
  EXPECT_FALSE(upload().contains("local_features") || upload().contains("corrected_query"));
  r.localFeatures = json{{"f", 1}};
  r.correctedQuery = "coffee";
  EXPECT_EQ(upload()["local_features"], r.localFeatures);
  EXPECT_EQ(upload()["corrected_query"], "coffee");
}

// Engagements: the "result" object, the action and where the tap led; a card's action.
TEST(FeedbackRecords, EngagementRules) {
  NBResultEngagementFeedback f;
  f.triggerEvent = 2;
  f.destination = 1;
  f.result = orvexResult();
  const std::string head = R"({"trigger_event":"tap","destination":"card",)";
  EXPECT_EQ(f.dictionary().dump(),
            head + R"("result":{"id":"r1","action_destination":"https://n.ex/a"}})");
  f.actionEngaged = true;  // without a punch-out of its own it leads nowhere
  EXPECT_EQ(f.dictionary().dump(), head + R"("action_target":"unknown",)" +
                                       R"("result":{"id":"r1","action_destination":null}})");
  f.actionTarget = 1;
  f.result->actionPunchout = NBPunchout{NBPunchout::Class::kNBPunchout, {}, {"maps:q"}, {}};
  EXPECT_EQ(f.dictionary().dump(), head + R"("action_target":"directions",)" +
                                       R"("result":{"id":"r1","action_destination":"maps:q"}})");
  f.actionEngaged = false;
  f.result->type = 9;  // outside engines report their title, null when it has no text
  f.result->title = NBText{};
  EXPECT_EQ(f.dictionary().dump(), head + R"("result":{"id":"r1","third_party_suggestion":null,)" +
                                       R"("action_destination":"non_orvex_result"}})");
  f.result->type = NBSearchResult::kTypeOrvex;  // which the back-end's own keep to themselves
  EXPECT_FALSE(f.dictionary().toJson()["result"].contains("third_party_suggestion"));
  f.result.reset();
  f.actionEngaged = true;
  EXPECT_EQ(f.dictionary().dump(), head + R"("result":null})");

  // Card sections: a description section is "more"; otherwise the destination decides.
  NBCardSectionEngagementFeedback card;
  card.triggerEvent = 3;
  card.cardSection = NBCardSection{NBCardSection::Class::kNBDescriptionCardSection, "d"};
  card.destination = NBPunchout{NBPunchout::Class::kORVPunchout, {}, {"tel:+15550100"}, "call"};
  const std::string cardHead = R"({"trigger_event":"click","card_type":"unknown",)";
  EXPECT_EQ(card.dictionary().dump(), cardHead + R"("action_target":"more"})");
  card.cardSection->recordClass = NBCardSection::Class::kNBCardSection;
  EXPECT_EQ(card.dictionary().dump(),
            cardHead + R"("action_target":"call","action_destination":"tel:+15550100"})");
  card.destination->recordClass = NBPunchout::Class::kNBPunchout;
  EXPECT_EQ(card.dictionary().toJson()["action_target"], "unknown");
  card.destination.reset();
  EXPECT_EQ(card.dictionary().toJson()["action_destination"], nullptr);
}

void expectRefused(const OrvexError& error, const std::string& reason) {
  EXPECT_EQ(std::tie(error.domain, error.code), std::tuple("ORVErrorDomain", 500));
  EXPECT_NE(error.reason.find(reason), std::string::npos) << error.reason;
}

// Anything malformed from a client is an error value and one log line, never a record. A few
// representative forms: the fuzz target throws arbitrary text at the same reader.
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
      {[](json& j) { j["$class"] = "NBNothing"; }, "\"NBNothing\" is no feedback record class"},
      {[](json& j) { j["trigger_event"] = 15; }, "trigger_event: 15 is outside its table of 15"},
      {[](json& j) { j["results"][0]["$class"] = "NBResultSection"; },
       "results[0].$class: \"NBResultSection\" does not belong here"},
      {[](json& j) { j["results"][0]["score"] = "high"; }, "results[0].score: not a number"},
      {[](json& j) { j["results"][0]["id"] = std::string("a\0b", 3); }, "text holding NUL"},
      {[](json& j) { j["results"][0]["punchout"]["urls"] = {1}; },
       "results[0].punchout.urls[0]: not a string"},
      {[](json& j) {
         j = json::parse(R"({"$class":"NBEndNetworkSearchFeedback","response_size":1,)"
                         R"("status_code":2,"network_timing_data":{"p":{"$data":"!!"}}})");
       },
       "network_timing_data: bytes that are not base64"},
      {[](json& j) {
         j = {{"$class", "NBErrorFeedback"}, {"error", nullptr}};
         for (int i = 0; i < 80; ++i) {
           j["error"] = {{"domain", "d"}, {"code", 1}, {"reason", "r"}, {"underlying", j["error"]}};
         }
       },
       "nested too deeply"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    json form = base;
    c.change(form);
    if (form.is_object()) form.emplace("timestamp", 1);
    int lines = 0;
    const LogObserverToken token = addLogObserver([&lines](const LogRecord& record) {
      lines += record.category == "Orvex_Feedback_Errors" && record.level == LogLevel::kError;
    });
    auto read = NBFeedback::fromDBusText(form.dump());
    ASSERT_FALSE(read);
    expectRefused(read.error(), c.reason);
    EXPECT_EQ(lines, 1);
  }

  // Not JSON at all, or nested past any record.
  expectRefused(NBFeedback::fromDBusText("{\"$class\": ").error(), "not JSON text");
  expectRefused(NBFeedback::fromDBusText(std::string(100000, '[')).error(), "not JSON text");
  expectRefused(NBFeedback::fromDBusText(std::string(300, '[') + std::string(300, ']')).error(),
                "nested too deeply");
  // Keys a record does not know are no reason to refuse it.
  json newer = base;
  newer["added_later"] = {1, 2};
  EXPECT_TRUE(NBFeedback::fromDBusForm(newer));
}

}  // namespace
}  // namespace orvex
