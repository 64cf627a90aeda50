// The envelope of a record: its archive form and the refusal of malformed archives, its times
// and properties, and text that is not UTF-8.
#include "orvexd/model/orvex_feedback.h"

#include <gtest/gtest.h>

namespace orvex {
namespace {

using nlohmann::json;

void expectRefused(const OrvexError& error, const std::string& reason) {
  EXPECT_EQ(std::tie(error.domain, error.code), std::tuple("ORVErrorDomain", 500));
  EXPECT_NE(error.reason.find(reason), std::string::npos) << error.reason;
}

PlistDictionary& recordOf(PlistDictionary& envelope) {
  return *envelope["feedback"].asDictionary();
}

// Representative refusals; the fuzz target reads arbitrary archives through the same code.
TEST(FeedbackEnvelope, MalformedArchivesAreRefusedWithTheirReason) {
  auto record = std::make_shared<NBClearInputFeedback>();
  record->triggerEvent = 1;
  const PlistDictionary base = OrvexFeedback::initWithFeedback(record, 3, {}, "a").archiveForm();
  struct Case {
    void (*change)(PlistDictionary&);
    const char* reason;
  };
  const Case cases[] = {
      {[](PlistDictionary& d) { d["$class"] = "NSObject"; }, "$class: not \"OrvexFeedback\""},
      {[](PlistDictionary& d) { d.erase("feedback"); }, "feedback: missing"},
      {[](PlistDictionary& d) { d["_clientQueryId"] = -2; }, "_clientQueryId: out of range"},
      {[](PlistDictionary& d) { recordOf(d)["trigger_event"] = 1.0; },
       "feedback: invalid feedback record: trigger_event: not an integer"},
      {[](PlistDictionary& d) {
         recordOf(d) = {{"$class", "NBEndNetworkSearchFeedback"}, {"timestamp", 1}};
         recordOf(d)["response_size"] = 1;
         recordOf(d)["status_code"] = 200;
         recordOf(d)["network_timing_data"] = PlistDictionary{{"when", PlistDate{}}};
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

TEST(FeedbackEnvelope, EnvelopeTimestampsOrderingAndProperties) {
  auto start = std::make_shared<NBStartSearchFeedback>();
  start->timestamp = 2'500'000'000;  // 2500 ms of the record's own clock
  start->queryId = 9;
  auto envelope = OrvexFeedback::initWithFeedback(start, 5, {}, "news/1.0");
  envelope.setRelTimestamp(40);
  EXPECT_EQ(envelope.dictionary().toJson()["timestamp"], 40);
  EXPECT_EQ(envelope.description(),
            R"({"trigger_event":"unknown","input":null,"uuid":null,"query_id":5,)"
            R"("type":"search_start","timestamp":2500})");  // a client query id of 0 is none

  // Ordered by the records' own clocks.
  auto earlier = std::make_shared<NBFeedback>();
  earlier->timestamp = 10;
  const auto first = OrvexFeedback::initWithFeedback(earlier, 9, {}, "");
  EXPECT_TRUE(OrvexFeedback::timeStampComparator(first, envelope) < 0);
  EXPECT_TRUE(OrvexFeedback::timeStampComparator(envelope, first) > 0);
  EXPECT_TRUE(OrvexFeedback::timeStampComparator(first, first) == 0);

  // (Processing, which rewrites identifiers on a copy: the session's privacy filtering test.)
  // A nil record is logged and kept as an empty base record, never dereferenced.
  EXPECT_EQ(OrvexFeedback::initWithFeedback(nullptr, 1, {}, "").type(), NBFeedbackType::kUnknown);
}

// Text the daemon got from elsewhere (a server's header, say) may not be UTF-8: it is written as
// U+FFFD rather than losing the record.
TEST(FeedbackEnvelope, TextThatIsNotUtf8StillUploadsAndArchives) {
  auto start = std::make_shared<NBStartNetworkSearchFeedback>();
  start->headers = FeedbackStringMap{{"X-Odd", std::string("caf\xe9\0", 5)}};
  start->input = "quote \" backslash \\ tab \t bell \x07";
  const auto envelope = OrvexFeedback::initWithFeedback(start, 1, {}, "ua");
  const json upload = json::parse(envelope.dictionary().dump());
  EXPECT_EQ(upload["headers"]["X-Odd"], std::string("caf\xEF\xBF\xBD\0", 7));
  EXPECT_EQ(upload["input"], *start->input);
  auto stored = OrvexFeedback::fromArchiveData(envelope.archiveData());
  ASSERT_TRUE(stored);
  EXPECT_EQ(envelope.archiveData(),
            serializePropertyList(envelope.archiveForm(), PlistFormat::kBinary));
  EXPECT_EQ(stored.value().dictionary().toJson()["headers"]["X-Odd"],
            "caf\xEF\xBF\xBD\xEF\xBF\xBD");
}

}  // namespace
}  // namespace orvex
