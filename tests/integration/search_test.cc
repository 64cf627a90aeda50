// Searches through the real daemon against the reference back-end's WordNet answers: network,
// then the query cache; query items; the bag checks and their records; supersession; and the
// back-end asking for a newer bag.
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <nlohmann/json.hpp>

#include "tests/support/daemon_harness.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::searchRequest;

constexpr const char* kBag = R"({"version": "7", "enabled": true, "min_query_length": 2,
  "feedback_enabled": true, "search_url": "${BASE_URL}/search"})";

const ORVSessionConfiguration kGlance{"com.zelmor.glance", "Glance/1"};

// Whether the client's open session soon holds a record that mentions `text`.
bool recorded(OrvexClient& client, const std::string& text) {
  return testing::eventually(
      [&] {
        auto records = client.feedback();
        return records && records.value().find(text) != std::string::npos;
      },
      10s);
}

// The answer's JSON; a cache hit holds the cached answer in an array of one.
Json raw(const QueryAnswer& answer) {
  return answer.reply ? Json::parse(answer.reply->rawResponse) : Json();
}

class SearchTest : public ::testing::Test {
 protected:
  // Starts the daemon and makes a client that has its bag, so that searches neither wait for
  // it nor find none.
  void startWithBag() {
    harness.start();
    client = harness.clientWithBag(kGlance);
  }

  testing::DaemonHarness harness{kBag};
  std::unique_ptr<OrvexClient> client;
};

TEST_F(SearchTest, GrowingPrefixesGoToTheNetworkUntilACompletionCoversThemThenComeFromTheCache) {
  startWithBag();

  auto first = client->request(searchRequest(1, "weath"));
  ASSERT_TRUE(first);
  ASSERT_FALSE(first.value().error) << first.value().error->describe();
  const Json answer = raw(first.value());
  ASSERT_TRUE(answer.is_object()) << answer;
  const std::string completed = answer["query"];
  EXPECT_TRUE(completed.starts_with("weath")) << completed;
  EXPECT_FALSE(answer["results"].empty());
  EXPECT_EQ(harness.backend().requestCount("search"), 1u);
  // The answer's status is counted under the whole user agent.
  EXPECT_EQ(harness.counter("com.zelmor.orvexd.Glance/1.fedapicall.serverstatus.200"), 1);

  // Typing on within the completed query: answered from the cache, no request goes out.
  auto second = client->request(searchRequest(2, completed.substr(0, 6)));
  ASSERT_TRUE(second);
  const Json cached = raw(second.value());
  ASSERT_TRUE(cached.is_array()) << cached;
  EXPECT_EQ(cached[0]["query"], completed);
  EXPECT_EQ(harness.backend().requestCount("search"), 1u);
  EXPECT_EQ(harness.counter("com.zelmor.orvexd.glance.ondevicecachehits"), 1);

  // Query items always go to the network, and so does a prefix nothing covers yet.
  auto withItems = searchRequest(3, completed.substr(0, 6));
  withItems.queryItems = {{"src", "test"}};
  ASSERT_TRUE(client->request(withItems));
  EXPECT_EQ(harness.backend().requestCount("search"), 2u);
  ASSERT_TRUE(client->request(searchRequest(4, "zebr")));
  EXPECT_EQ(harness.backend().requestCount("search"), 3u);

  // The records of it all: a network start per request, and the cache hit (made after its
  // answer, so looked for until it is there).
  Json records;
  size_t starts = 0, hits = 0;
  EXPECT_TRUE(testing::eventually([&] {
    auto feedback = client->feedback();
    if (!feedback) return false;
    records = Json::parse(feedback.value());
    starts = hits = 0;
    for (const auto& record : records) {
      if (record.value("endpoint_type", "") == "orvex_search") ++starts;
      if (record.dump().find("cache_hit") != std::string::npos) ++hits;
    }
    return starts == 3 && hits == 1;
  })) << records.dump(1);
}

TEST_F(SearchTest, SkippedSearchesAnswerNothingAndSayWhy) {
  startWithBag();

  auto tooShort = client->request(searchRequest(1, "w"));
  ASSERT_TRUE(tooShort);
  EXPECT_EQ(tooShort.value().queryId, 1);
  EXPECT_FALSE(tooShort.value().reply);
  EXPECT_FALSE(tooShort.value().error);
  EXPECT_EQ(harness.backend().requestCount("search"), 0u);
  // The record is made after the answer: look until it is there.
  EXPECT_TRUE(recorded(*client, "less_than_minimum_query_length"));

  // The back-end switches search off; the next bag the daemon fetches says so.
  testing::DaemonHarness disabled(
      R"({"version": "1", "enabled": false, "feedback_enabled": true})");
  disabled.start();
  auto other = disabled.clientWithBag(kGlance);
  auto skipped = other->request(searchRequest(1, "weather"));
  ASSERT_TRUE(skipped);
  EXPECT_FALSE(skipped.value().reply);
  EXPECT_FALSE(skipped.value().error);
  EXPECT_TRUE(recorded(*other, "bag_disabled"));
}

TEST_F(SearchTest, WithoutABagWithinASecondTheSearchTimesOut) {
  harness.backend().setFault("bag", {{"delay_ms", 5000}});
  harness.start();
  client = harness.configuredClient(kGlance);
  auto answer = client->request(searchRequest(1, "weather"));
  ASSERT_TRUE(answer);
  EXPECT_FALSE(answer.value().reply);
  ASSERT_TRUE(answer.value().error);
  EXPECT_EQ(answer.value().error->code, 1);
  EXPECT_EQ(answer.value().error->reason, "timeout");
  // The answer goes out before the line is logged.
  EXPECT_TRUE(testing::eventually([&] {
    return harness.daemonLog().find("Bag fetch failed, can't complete non-cached query weather.") !=
           std::string::npos;
  }));
}

TEST_F(SearchTest, AnOlderSearchStillInFlightIsAnsweredEmptyOnceANewerOneWasAccepted) {
  startWithBag();

  harness.backend().setFault("search", {{"delay_ms", 600}, {"count", 1}});
  std::promise<ClientResult<QueryAnswer>> slow;
  client->requestAsync(searchRequest(5, "weath"), [&](ClientResult<QueryAnswer> answer) {
    slow.set_value(std::move(answer));
  });
  ASSERT_TRUE(harness.backend().waitForRequests("search", 1, 5s));
  auto newer = client->request(searchRequest(6, "zebr"));
  ASSERT_TRUE(newer);
  EXPECT_TRUE(newer.value().reply);

  auto older = slow.get_future().get();
  ASSERT_TRUE(older);
  EXPECT_EQ(older.value().queryId, 5);
  EXPECT_FALSE(older.value().reply);
  EXPECT_FALSE(older.value().error);
}

TEST_F(SearchTest, ABackEndAnnouncingANewerBagMakesTheDaemonFetchIt) {
  startWithBag();

  // Not JSON: logged, nothing else happens.
  harness.backend().setFault("search",
                             {{"headers", {{"X-Zelmor-ForceFetch", "not json"}}}, {"count", 1}});
  ASSERT_TRUE(client->request(searchRequest(1, "weath")));
  EXPECT_TRUE(testing::eventually([&] {
    return harness.daemonLog().find(
               "Failed to deserialize X-Zelmor-ForceFetch header data into a "
               "dictionary: not json") != std::string::npos;
  }));

  harness.backend().setFault(
      "search", {{"headers", {{"X-Zelmor-ForceFetch", R"({"bag": 8})"}}}, {"count", 1}});
  ASSERT_TRUE(client->request(searchRequest(2, "zebr")));
  ASSERT_TRUE(harness.backend().waitForRequests("bag", 2, 5s));
  const auto requests = harness.backend().requests();
  bool askedForEight = false;
  for (const auto& request : requests) {
    if (request.endpoint != "bag") continue;
    for (const auto& [name, value] : request.queryItems) {
      askedForEight |= name == "version" && value == "8";
    }
  }
  EXPECT_TRUE(askedForEight);
}

// The user's locale.conf, rewritten while the daemon runs, decides the next search's locale and
// makes the bag stale, so that one of the new locale is fetched.
TEST_F(SearchTest, RewritingTheUsersLocaleConfChangesTheNextSearchAndTheBag) {
  startWithBag();
  const auto lastLocale = [&](const std::string& endpoint) {
    std::string locale;
    for (const auto& request : harness.backend().requests()) {
      if (request.endpoint != endpoint) continue;
      for (const auto& [name, value] : request.queryItems) {
        if (name == "locale") locale = value;
      }
    }
    return locale;
  };
  ASSERT_TRUE(client->request(searchRequest(1, "weath")));
  EXPECT_EQ(lastLocale("search"), "en");

  std::ofstream(harness.directory() / "config" / "locale.conf")
      << "# written by the settings panel\nLANG=\"de_DE.UTF-8\"\n";
  ASSERT_TRUE(harness.backend().waitForRequests("bag", 2, 5s));
  EXPECT_EQ(lastLocale("bag"), "de_DE");
  ASSERT_TRUE(client->request(searchRequest(2, "zebr")));
  EXPECT_EQ(lastLocale("search"), "de_DE");
}

}  // namespace
}  // namespace orvex
