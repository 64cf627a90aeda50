// The query kinds other than search, through the real daemon and the reference back-end: where
// each goes and with what, the shape of its answer, the records it leaves, the images it names
// (prefetched, then loaded from the cache), a disabled bag, and flights answered from the local
// data file.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/daemon_harness.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

// Clients whose user agent holds "offline" get a disabled bag.
constexpr const char* kBag = R"({"version": "3", "enabled": true, "feedback_enabled": true,
  "search_url": "${BASE_URL}/search", "more_results_url": "${BASE_URL}/more",
  "card_url": "${BASE_URL}/card", "search_render_timeout": 30,
  "agents": {"offline": {"enabled": false}}})";

const ORVSessionConfiguration kGlance{"com.zelmor.glance", "Glance/1"};
const ORVSessionConfiguration kOffline{"com.zelmor.offline", "Offline/1"};

ORVRequest query(ORVRequestKind kind, int64_t queryId, std::string text = {}) {
  ORVRequest request;
  request.kind = kind;
  request.queryId = queryId;
  request.clientQueryId = static_cast<uint64_t>(queryId);
  request.queryString = std::move(text);
  request.scale = 2;
  return request;
}

Json raw(const ClientResult<QueryAnswer>& answer) {
  if (!answer || !answer.value().reply) return Json();
  return Json::parse(answer.value().reply->rawResponse);
}

// The items of the last request the back-end logged for `endpoint`.
std::map<std::string, std::string> lastItems(testing::ReferenceBackend& backend,
                                             const std::string& endpoint) {
  std::map<std::string, std::string> items;
  for (const auto& request : backend.requests()) {
    if (request.endpoint != endpoint) continue;
    items = {request.queryItems.begin(), request.queryItems.end()};
  }
  return items;
}

// The client's open session's network starts, once there are `count` of them.
Json networkStarts(OrvexClient& client, size_t count) {
  Json starts;
  testing::eventually(
      [&] {
        auto feedback = client.feedback();
        if (!feedback) return false;
        starts = Json::array();
        for (const auto& record : Json::parse(feedback.value())) {
          if (record.contains("endpoint_type") && record.contains("url")) starts.push_back(record);
        }
        return starts.size() >= count;
      },
      10s);
  return starts;
}

// Whether the daemon soon logs `text`.
bool logged(testing::DaemonHarness& harness, const std::string& text) {
  return testing::eventually([&] { return harness.daemonLog().find(text) != std::string::npos; },
                             10s);
}

TEST(QueryKindsTest, EachKindReachesItsEndpointWithItsItemsAndAnswersItsShape) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  auto client = harness.clientWithBag(kGlance);

  // Zero keyword: the search endpoint with qtype=zkw and no query; the answer as an object.
  auto zkw = client->request(query(ORVRequestKind::kZeroKeyword, 1));
  ASSERT_TRUE(zkw);
  ASSERT_FALSE(zkw.value().error) << zkw.value().error->describe();
  EXPECT_TRUE(raw(zkw).is_object()) << raw(zkw);
  auto items = lastItems(harness.backend(), "search");
  EXPECT_EQ(items["qtype"], "zkw");
  EXPECT_FALSE(items.contains("q"));

  // Lookup: the search endpoint with the text, the asking application and the selection type.
  auto lookupRequest = query(ORVRequestKind::kLookup, 2, "serendipity");
  lookupRequest.applicationBundleIdentifier = "org.example.reader";
  lookupRequest.selectionType = kORVLookupSelectionExplicit;
  lookupRequest.contextText = "a happy serendipity of events";
  auto lookup = client->request(lookupRequest);
  ASSERT_TRUE(lookup);
  ASSERT_FALSE(lookup.value().error) << lookup.value().error->describe();
  EXPECT_TRUE(raw(lookup).is_object()) << raw(lookup);
  items = lastItems(harness.backend(), "search");
  EXPECT_EQ(items["q"], "serendipity");
  EXPECT_EQ(items["context"], "org.example.reader");
  EXPECT_TRUE(items.contains("ltype"));

  // More results and cards go through the endpoint object; their answers come in an array.
  auto more = query(ORVRequestKind::kMoreResults, 3);
  more.moreResultsURL = harness.backend().baseUrl() + "/more?page=2";  // no "q"
  more.queryItems = {{"q", "light"}, {"page", "2"}};
  auto moreAnswer = client->endpointRequest(more, kGlance);
  ASSERT_TRUE(moreAnswer);
  ASSERT_FALSE(moreAnswer.value().error) << moreAnswer.value().error->describe();
  ASSERT_TRUE(raw(moreAnswer).is_array()) << raw(moreAnswer);
  EXPECT_TRUE(raw(moreAnswer)[0].is_object());
  items = lastItems(harness.backend(), "more");
  EXPECT_EQ(items["q"], "light");
  EXPECT_EQ(items["page"], "2");

  auto card = query(ORVRequestKind::kCard, 4, "light");
  card.queryItems = {{"q", "light"}};
  auto cardAnswer = client->endpointRequest(card, kGlance);
  ASSERT_TRUE(cardAnswer);
  ASSERT_FALSE(cardAnswer.value().error) << cardAnswer.value().error->describe();
  ASSERT_TRUE(raw(cardAnswer).is_array()) << raw(cardAnswer);
  EXPECT_EQ(lastItems(harness.backend(), "card")["q"], "light");

  // The answers' images came into the daemon's cache as they arrived: LoadImages hands out the
  // very bytes of the back-end's icon file without fetching it again. An image the back-end
  // does not have is not kept.
  const std::string icon = raw(zkw)["icon"]["url"];
  const std::string prefix = harness.backend().baseUrl() + "/images/";
  ASSERT_TRUE(icon.starts_with(prefix)) << icon;
  ASSERT_TRUE(logged(harness, " bytes for " + icon));
  const std::string file =
      testing::readTextFile("/usr/share/icons/Adwaita/" + icon.substr(prefix.size()));
  auto loaded = client->loadImages({{icon, std::nullopt, {}}}, 5000ms);
  ASSERT_TRUE(loaded) << loaded.error().message;
  EXPECT_EQ(loaded.value().at(icon), std::vector<uint8_t>(file.begin(), file.end()));
  size_t iconFetches = 0;
  for (const auto& request : harness.backend().requests()) {
    iconFetches +=
        request.endpoint == "images" && harness.backend().baseUrl() + request.path == icon;
  }
  EXPECT_EQ(iconFetches, 1u);
  card.queryItems.push_back({"missing_image", "1"});
  ASSERT_TRUE(client->endpointRequest(card, kGlance));
  EXPECT_TRUE(
      logged(harness, "Bad status code 404 for image " + prefix + "48x48/legacy/no-such-icon.png"));

  // A card the back-end fails is answered with an error, and logged.
  harness.backend().setFault("card", {{"status", 503}, {"count", 1}});
  auto failed = client->endpointRequest(card, kGlance);
  ASSERT_TRUE(failed);
  EXPECT_FALSE(failed.value().reply);
  EXPECT_TRUE(failed.value().error);
  EXPECT_TRUE(logged(harness, "Card fetch failed with HTTP status code 503"));

  // The records: each request's start, at its endpoint; the more-results start has no input,
  // its URL having no "q"; the lookup's carries how its text was selected.
  const Json starts = networkStarts(*client, 5);
  std::map<std::string, Json> byPath;
  for (const auto& start : starts) {
    const std::string url = start["url"];
    for (const char* path : {"/more", "/card", "qtype=zkw", "context="}) {
      if (url.find(path) != std::string::npos) byPath[path] = start;
    }
  }
  ASSERT_EQ(byPath.size(), 4u) << starts.dump(1);
  EXPECT_EQ(byPath["/card"]["endpoint_type"], "orvex_card");
  EXPECT_EQ(byPath["/more"]["endpoint_type"], "orvex_search");
  EXPECT_TRUE(byPath["/more"]["input"].is_null()) << byPath["/more"];
  EXPECT_EQ(byPath["context="]["input"], "serendipity");
  // Uploaded as the record's trigger event.
  EXPECT_EQ(byPath["context="]["trigger_event"], "lookup_explicit") << byPath["context="];
}

TEST(QueryKindsTest, ADisabledBagSkipsZeroKeywordAndFlightsComeFromTheDataFile) {
  testing::TempDir data;
  const auto flights = data.path() / "flights.json";
  testing::DaemonHarness harness(
      kBag, {{"ORVFlightDebugDataLocation", PlistValue("file://" + flights.string())}});
  harness.start();

  auto offline = harness.clientWithBag(kOffline);
  auto skipped = offline->request(query(ORVRequestKind::kZeroKeyword, 1));
  ASSERT_TRUE(skipped);
  EXPECT_EQ(skipped.value().queryId, 1);
  EXPECT_FALSE(skipped.value().reply);
  EXPECT_FALSE(skipped.value().error);
  EXPECT_TRUE(testing::eventually([&] {
    auto feedback = offline->feedback();
    return feedback && feedback.value().find("bag_disabled") != std::string::npos;
  }));
  EXPECT_EQ(harness.backend().requestCount("search"), 0u);

  // No data file: an empty array, not an error.
  auto client = harness.clientWithBag(kGlance);
  auto flight = query(ORVRequestKind::kFlightSearch, 2);
  flight.flightQuery = "ZL-12";
  EXPECT_EQ(raw(client->request(flight)), Json::array());

  std::ofstream(flights) << R"([
    {"carrierCode": "ZL", "flightNumber": "12", "flightId": "a1"},
    {"carrierCode": "ZL", "flightNumber": "120", "flightId": "a2"},
    {"carrierCode": "QX", "flightNumber": "12", "flightId": "a3"}, 7])";
  const Json found = raw(client->request(flight));
  ASSERT_EQ(found.size(), 1u) << found;
  EXPECT_EQ(found[0]["flightId"], "a1");
  flight.flightQuery = "ZL-12-3";
  EXPECT_EQ(raw(client->request(flight)), Json::array());

  auto byId = query(ORVRequestKind::kFlightLookup, 3);
  byId.flightId = "a3";
  const Json identified = raw(client->request(byId));
  ASSERT_EQ(identified.size(), 1u) << identified;
  EXPECT_EQ(identified[0]["carrierCode"], "QX");
}

}  // namespace
}  // namespace orvex
