#include "orvexd/query/query_cache.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_names.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using std::chrono::seconds;
using testing::LogCapture;
using testing::TestAssembly;

// A memory-pressure source the test fires by hand; counts the sources alive.
struct FakePressure {
  struct Source final : MemoryPressureSource {
    explicit Source(FakePressure& p) : owner(p) { ++owner.live; }
    ~Source() override { --owner.live; }
    FakePressure& owner;
  };
  MemoryPressureSourceFactory factory() {
    return [this](std::function<void()> handler) {
      fire = std::move(handler);
      return std::make_unique<Source>(*this);
    };
  }
  std::function<void()> fire;
  int live = 0;
};

nlohmann::json answer(const std::string& query, double score = 0, int maxAge = 0) {
  nlohmann::json json = {{"status", "OK"}, {"query", query}, {"results", nlohmann::json::array()}};
  if (score != 0) json["completion_score"] = score;
  if (maxAge != 0) json["max_age"] = maxAge;
  return json;
}

// An answer padded so that its cost is exactly `cost`.
nlohmann::json answerOfCost(const std::string& query, uint64_t cost) {
  nlohmann::json json = answer(query);
  json["pad"] = "";
  const uint64_t base = QueryCache::costOf(json).value();
  json["pad"] = std::string((cost - base) * 2 / 3, 'x');
  while (QueryCache::costOf(json).value() < cost) json["pad"].get_ref<std::string&>() += 'x';
  EXPECT_EQ(QueryCache::costOf(json).value(), cost) << "no answer has this cost";
  return json;
}

HttpRequest requestWithScale(const std::string& scale) {
  HttpRequest request;
  request.url = "https://search.example/search?q=x";
  if (!scale.empty()) request.headers["X-Zelmor-UI-Scale"] = scale;
  return request;
}

class QueryCacheTest : public ::testing::Test {
 protected:
  CachedResultSet entry(const std::string& input, nlohmann::json json,
                        const std::string& scale = "") {
    return CachedResultSet(input, requestWithScale(scale), std::move(json), Uuid::random(),
                           env.assembly->clock->wallNow());
  }
  std::string chosen(const std::string& input, double scale = 0) {
    ORVRequest request;
    request.queryString = input;
    request.scale = scale;
    const auto found = cache.getRequest(request);
    return found ? found->query().value_or("?") : "none";
  }

  TestAssembly env;
  FakePressure pressure;
  QueryCache cache{*env.assembly, pressure.factory()};
};

TEST_F(QueryCacheTest, ChoosesTheShortestCompletionThenTheBestScoreForTheScale) {
  EXPECT_EQ(chosen(""), "none");
  cache.set(entry("we", answer("weaver", 0.9)));
  cache.set(entry("we", answer("weasel", 0.2)));
  EXPECT_EQ(chosen("wea"), "weaver");  // weasel comes first in key order, weaver scores higher
  EXPECT_EQ(chosen("WEA"), "weaver");  // typed text is compared lower-cased

  cache.set(entry("we", answer("Weaver", 0.2)));  // same key, lower-cased; now a tie
  EXPECT_EQ(cache.count(), 2u);
  EXPECT_EQ(chosen("wea"), "weasel");  // ties keep the smaller key

  cache.set(entry("we", answer("wear", 0.01)));
  EXPECT_EQ(chosen("wea"), "wear");  // shorter completion beats any score
  // An empty input matches every key, but only answers fetched for nothing typed qualify.
  EXPECT_EQ(chosen(""), "none");
  cache.set(entry("", answer("zebra", 1)));
  cache.set(entry("", answer("yak")));
  EXPECT_EQ(chosen(""), "yak");
  EXPECT_EQ(chosen("weas"), "weasel");
  EXPECT_EQ(chosen("weasels"), "none");
  EXPECT_EQ(chosen("x"), "none");

  // Fetched for more than has been typed: not an answer for less.
  cache.removeAllObjects();
  cache.set(entry("weat", answer("weather", 1)));
  EXPECT_EQ(chosen("wea"), "none");
  EXPECT_EQ(chosen("weat"), "weather");
  EXPECT_EQ(cache.get("Weath")->query(), "weather");

  // A zero score never replaces the first choice; a negative one neither.
  cache.removeAllObjects();
  cache.set(entry("b", answer("bab", -1)));
  cache.set(entry("b", answer("bac", 0)));
  EXPECT_EQ(chosen("ba"), "bab");

  // Non-ASCII input is counted in characters, not bytes.
  cache.set(entry("ÉT", answer("Été")));
  EXPECT_EQ(chosen("ét"), "été");

  // Only answers made for the request's display scale, or for none, are chosen.
  cache.removeAllObjects();
  cache.set(entry("m", answer("moon"), "3"));
  cache.set(entry("m", answer("mars"), ""));
  EXPECT_EQ(chosen("moo", 2.0), "none");
  EXPECT_EQ(chosen("moo", 3.0), "moon");
  cache.set(entry("v", answer("venus"), "1.2"));  // a request of scale 1.25 says "1.2"
  EXPECT_EQ(chosen("ven", 1.25), "venus");
  EXPECT_EQ(chosen("moo", 0), "moon");
  EXPECT_EQ(chosen("mar", 2.0), "none");  // stored without a scale: scale 0
  EXPECT_EQ(entry("m", answer("m"), "2.5").uiScale(), 2.5f);
  EXPECT_EQ(entry("m", answer("m"), "big").uiScale(), 0.f);
}

// (What has no key to be stored under: the fuzz target checks every answer against that rule.)
TEST_F(QueryCacheTest, KeepsTheReplyTextOfAHitReadyForTheBus) {
  nlohmann::json json = answer("weaver");
  json["title"] = "odd \xEF\xBF\xBF";  // U+FFFF, which the bus text escapes
  cache.set(entry("we", json));
  ORVRequest request;
  request.queryString = "wea";
  const auto waited = cache.getRequest(request);
  ASSERT_TRUE(waited);
  EXPECT_EQ(waited->replyText(), jsonTextForBus("[" + json.dump() + "]"));
  EXPECT_NE(waited->replyText().find("\\uffff"), std::string::npos);
  const auto untilIdle = cache.tryGetRequest(request);
  ASSERT_TRUE(untilIdle);
  EXPECT_EQ(&untilIdle->replyText(), &waited->replyText());  // shared, never copied
}

TEST_F(QueryCacheTest, BoundsTheCostWithoutEverSubtracting) {
  LogCapture log;
  // One answer alone at the limit or above is never stored.
  cache.set(entry("big", answerOfCost("big", QueryCache::kMaxCost + 1)));
  EXPECT_EQ(cache.count(), 0u);
  EXPECT_TRUE(log.contains("NOT caching 'big' with cost 2097153"));
  cache.set(entry("big", answerOfCost("big", QueryCache::kMaxCost - 1)));
  EXPECT_EQ(cache.count(), 1u);
  EXPECT_EQ(cache.currentCost(), QueryCache::kMaxCost - 1);

  // Reaching the limit exactly flushes the others first; the newcomer stays alone.
  cache.removeAllObjects();
  const uint64_t half = QueryCache::kMaxCost / 2;
  cache.set(entry("o", answerOfCost("one", half)));
  cache.set(entry("t", answerOfCost("two", half)));
  EXPECT_EQ(cache.count(), 1u);
  EXPECT_EQ(cache.currentCost(), half);
  EXPECT_EQ(log.count("!!! exceeded max cost, flushing cache !!!"), 1u);
  EXPECT_EQ(chosen("t"), "two");
  EXPECT_EQ(chosen("o"), "none");
  EXPECT_TRUE(cache.isListeningForMemoryPressure());  // a flush for cost keeps listening

  // Replacing an entry adds its cost again.
  cache.removeAllObjects();
  const nlohmann::json small = answer("sun");
  const uint64_t cost = QueryCache::costOf(small).value();
  EXPECT_EQ(cost, small.dump().size() * 3 / 2);
  cache.set(entry("s", small));
  cache.set(entry("s", small));
  EXPECT_EQ(cache.count(), 1u);
  EXPECT_EQ(cache.currentCost(), 2 * cost);
  EXPECT_TRUE(log.contains("caching 'sun' with cost " + std::to_string(cost)));
}

TEST_F(QueryCacheTest, ExpiresAtMaxAgeOnTheCachesClock) {
  cache.set(entry("r", answer("rain", 0, 60)));
  cache.set(entry("r", answer("rainbow")));  // no max_age: never expires
  nlohmann::json zero = answer("rainy");
  zero["max_age"] = 0;
  cache.set(entry("r", zero));
  EXPECT_EQ(cache.count(), 3u);

  env.advance(seconds(59));
  EXPECT_EQ(chosen("rain"), "rain");
  env.advance(seconds(1));  // the expiry time equals now: expired, and removed by the lookup
  EXPECT_EQ(chosen("rain"), "rainy");
  EXPECT_EQ(cache.count(), 2u);
  env.advance(std::chrono::hours(24 * 365));
  EXPECT_EQ(chosen("rai"), "rainy");
  EXPECT_EQ(cache.count(), 2u);
  // An expired entry outside the walked prefix stays until a lookup reaches it.
  cache.set(entry("s", answer("snow", 0, 1)));
  env.advance(seconds(5));
  EXPECT_EQ(chosen("r"), "rainy");
  EXPECT_EQ(cache.count(), 3u);
  EXPECT_EQ(chosen("sn"), "none");
  EXPECT_EQ(cache.count(), 2u);
}

TEST_F(QueryCacheTest, EmptiesOnPressureAndOnContextChanges) {
  EXPECT_EQ(pressure.live, 0);
  cache.set(entry("p", answer("paris")));
  cache.set(entry("p", answer("prague")));
  EXPECT_EQ(cache.count(), 2u);
  EXPECT_EQ(pressure.live, 1);  // one source however many entries

  LogCapture log;
  pressure.fire();
  EXPECT_EQ(cache.count(), 0u);
  EXPECT_EQ(cache.currentCost(), 0u);
  EXPECT_EQ(pressure.live, 0);
  EXPECT_TRUE(log.contains("emptying cache under memory pressure"));

  for (const char* name : {kORVUserGUIDChangeNotification, kORVCountryCodeChangeNotification,
                           kORVTimeZoneChangeNotification, kORVLocaleChangeNotification,
                           kORVDeviceManagementChangeNotification}) {
    cache.set(entry("p", answer("paris")));
    EXPECT_EQ(cache.count(), 1u) << name;
    env.assembly->notificationCenter->post(name);
    EXPECT_EQ(cache.count(), 0u) << name;
    EXPECT_EQ(pressure.live, 0) << name;
  }
  env.assembly->notificationCenter->post(kORVBagChangeNotification);
  cache.set(entry("p", answer("paris")));
  env.assembly->notificationCenter->post(kORVBagChangeNotification);
  EXPECT_EQ(cache.count(), 1u);
}

TEST(CachedResultSet, ReadsItsFieldsFromTheAnswerAndRequest) {
  const WallTime now = WallTime(seconds(1'700'000'000));
  HttpRequest request;
  const Uuid guid = Uuid::random();
  request.headers["x-zelmor-userguid"] = guid.lowerString();
  nlohmann::json json = {{"query", "Straße"}, {"max_age", 1.5}, {"completion_score", "high"}};
  const CachedResultSet entry("STR", request, json, Uuid(), now);
  EXPECT_EQ(entry.input(), "str");
  EXPECT_EQ(entry.query(), "straße");
  EXPECT_EQ(entry.userGuid(), guid);
  EXPECT_EQ(entry.completionScore(), 0.f);
  EXPECT_EQ(entry.expireTime(), now + std::chrono::milliseconds(1500));
  // A negative lifetime has already run out; a text one is none.
  json["max_age"] = -5;
  EXPECT_EQ(CachedResultSet("s", request, json, Uuid(), now).expireTime(),
            now - std::chrono::seconds(5));
  json["max_age"] = "60";
  EXPECT_FALSE(CachedResultSet("s", request, json, Uuid(), now).expireTime());
  EXPECT_FALSE(CachedResultSet("s", request, nlohmann::json::array(), Uuid(), now).query());
}

TEST(PsiMemoryPressureSource, IsMadeOnlyWherePressureCanBeReported) {
  testing::TestAssembly env;
  testing::TempDir dir;
  EXPECT_EQ(
      makePsiMemoryPressureSource(
          *env.assembly->workerPool, [] {}, PsiTrigger{(dir / "absent").string(), "full 1 2"}),
      nullptr);
  // A plain file takes the text but cannot report anything: no source that spins on it.
  std::ofstream(dir / "plain") << "";
  EXPECT_EQ(makePsiMemoryPressureSource(
                *env.assembly->workerPool, [] {}, PsiTrigger{(dir / "plain").string()}),
            nullptr);
  // The kernel's file, where there is one: a source that is destroyed cleanly.
  auto source = makePsiMemoryPressureSource(*env.assembly->workerPool, [] {});
  source.reset();
  env.settle();
}

}  // namespace
}  // namespace orvex
