#include "orvexd/model/orv_bag.h"

#include <gtest/gtest.h>

namespace orvex {
namespace {

TEST(ORVBag, AgentFragmentsOverrideKeysInTheirOrderLaterOnesWinning) {
  const auto raw = BagDictionary::parse(R"({
    "version": 12,
    "enabled": false,
    "search_url": "https://search.example/search",
    "min_query_length": 2,
    "geo_sources": ["gps", "wifi", 7],
    "agents": {
      "glance": {"enabled": true, "min_query_length": 1},
      "roamer": {"search_url": "https://roamer.example/search", "min_query_length": 4},
      "news": "not an object"
    }
  })");

  auto glance = ORVBag::initWithDictionary(raw, "Glance/1");
  ASSERT_TRUE(glance);
  EXPECT_TRUE(glance->isEnabled());
  EXPECT_EQ(glance->minimumQueryLength(), 1);
  EXPECT_EQ(glance->searchURL(), "https://search.example/search");

  // Both fragments apply; "roamer" comes later in the object and wins. A view of another view
  // shares its document rather than copying it.
  auto both = ORVBag::initWithBag(*glance, "Glance/1 ROAMER/3");
  EXPECT_EQ(&both->rawBag(), &glance->rawBag());
  EXPECT_TRUE(both->isEnabled());
  EXPECT_EQ(both->minimumQueryLength(), 4);
  EXPECT_EQ(both->searchURL(), "https://roamer.example/search");

  auto news = ORVBag::initWithDictionary(raw, "news/1.0");
  EXPECT_FALSE(news->isEnabled());
  EXPECT_EQ(news->minimumQueryLength(), 2);
  EXPECT_EQ(news->version(), "12");
  EXPECT_EQ(news->supportedGeoLocationSources(), (std::set<std::string>{"gps", "wifi"}));
  // The raw dictionary is kept as it came, overrides and all.
  EXPECT_EQ(news->rawBag(), raw);
}

TEST(ORVBag, WrongTypesReadAsAbsentAndOnlyObjectsMakeBags) {
  EXPECT_FALSE(ORVBag::initWithDictionary(BagDictionary::array(), "Glance/1"));
  EXPECT_FALSE(ORVBag::initWithDictionary(BagDictionary("text"), "Glance/1"));

  auto bag = ORVBag::initWithDictionary(BagDictionary::parse(R"({
    "version": "9.1", "enabled": "yes", "search_url": 5, "card_url": "",
    "request_timeout": -3, "min_query_length": -2,
    "resources": {"logo": "https://img.example/logo.png", "bad": 1},
    "feedback_types": ["a", null, "b"], "lookup_enabled": 1, "agents": []
  })"),
                                        "Glance/1");
  ASSERT_TRUE(bag);
  EXPECT_EQ(bag->version(), "9.1");
  EXPECT_FALSE(bag->isEnabled());
  EXPECT_FALSE(bag->searchURL());
  EXPECT_FALSE(bag->cardURL());
  EXPECT_FALSE(bag->timeoutIntervalForRequest());
  EXPECT_EQ(bag->minimumQueryLength(), 0);
  EXPECT_EQ(bag->urlForIdentifier("logo"), "https://img.example/logo.png");
  EXPECT_FALSE(bag->urlForIdentifier("bad"));
  EXPECT_EQ(bag->resources().size(), 1u);
  EXPECT_EQ(bag->feedbackTypes(), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(bag->lookupEnabled());
}

}  // namespace
}  // namespace orvex
