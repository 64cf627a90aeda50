// Subscription information strings, and the registry and manager that turn published entries
// into the subscriptions the device context sends, in virtual time.
#include <gtest/gtest.h>

#include <mutex>

#include "orvexd/base/orvex_names.h"
#include "orvexd/network/orvex_subscription_info.h"
#include "orvexd/network/orvex_subscription_manager.h"
#include "orvexd/network/orvex_subscription_registry.h"
#include "orvexd/platform/virtual_clock.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

TEST(OrvexSubscriptionInfoTest, ReadsListsAndJsonAndSaysWhyItRefuses) {
  VirtualClock clock;
  auto list = OrvexSubscriptionInfo::initWithString("type=premium , expires = 3600", clock);
  ASSERT_TRUE(list);
  EXPECT_EQ(list->type(), "premium");
  EXPECT_EQ(list->expirationDate(), clock.wallNow() + 1h);
  EXPECT_FALSE(list->isExpired(clock));
  clock.advance(1h);
  EXPECT_TRUE(list->isExpired(clock));

  // JSON takes "expires" as a number or a numeric string, and names the domain.
  auto json = OrvexSubscriptionInfo::initWithString(
      R"({"type": "sports", "expires": "120", "domain": "tv.example"})", clock);
  ASSERT_TRUE(json);
  EXPECT_EQ(json->expirationDate(), clock.wallNow() + 120s);
  EXPECT_EQ(json->domain(), "tv.example");

  const auto refusal = [&clock](std::string_view text) {
    std::string failure;
    EXPECT_FALSE(OrvexSubscriptionInfo::initWithString(text, clock, &failure)) << text;
    return failure;
  };
  EXPECT_EQ(refusal("type=a,,expires=1"),
            "Subscription information contained invalid key-value pair  (full string: "
            "type=a,,expires=1)");
  EXPECT_EQ(refusal("type=a, type=b, expires=1"),
            "Subscription information contained duplicate key type (full string: type=a, type=b, "
            "expires=1)");
  EXPECT_EQ(refusal("type=, expires=1"),
            "Subscription information contained empty key or value (full string: type=, "
            "expires=1)");
  EXPECT_EQ(refusal(R"({"type": 7, "expires": 60})"),
            R"(Subscription information contained invalid 'type': 7 (full dictionary: )"
            R"({"expires":60,"type":7}))");
  EXPECT_EQ(refusal(R"({"type": "a", "expires": true})"),
            R"(Subscription information contained invalid 'expires': true (full dictionary: )"
            R"({"expires":true,"type":"a"}))");
  EXPECT_EQ(refusal("type=a"),
            "Subscription information contained invalid 'expires': null "
            "(full dictionary: {\"type\":\"a\"})");
  // Bounded: the text's length, the pairs, and bytes that are no UTF-8.
  EXPECT_FALSE(refusal(std::string(4097, 'x')).empty());
  std::string pairs = "type=a";
  for (int i = 0; i < 40; ++i) pairs.append(",k").append(std::to_string(i)).append("=v");
  EXPECT_NE(refusal(pairs).find("more than 32"), std::string::npos);
  EXPECT_FALSE(refusal("type=\xff, expires=1").empty());
}

// The device context's side: every list the manager hands on.
struct RecordingDelegate final : SubscriptionManagerDelegate {
  void subscriptionManagerDidUpdateSubscriptionDictionaries(
      const std::vector<Json>& subscriptions) override {
    std::lock_guard lock(mutex);
    last = Json(subscriptions);
  }
  void subscriptionManagerDidUpdateStorefrontIdentifier(const std::string&) override {}
  Json latest() {
    std::lock_guard lock(mutex);
    return last;
  }
  std::mutex mutex;
  Json last;
};

class SubscriptionManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    assembly.subscriptionRegistry = std::make_shared<OrvexSubscriptionRegistry>(assembly);
    manager = OrvexSubscriptionManager::initWithAssembly(assembly, delegate);
  }
  void postBag(const std::string& json) {
    assembly.notificationCenter->post(
        kORVBagChangeNotification, nullptr,
        {{"bag", ORVBag::initWithDictionary(BagDictionary::parse(json), "Glance/1")}});
    test.settle();
  }
  Json listed() {
    test.settle();
    return Json(manager->subscriptions());
  }

  testing::TestAssembly test;
  Assembly& assembly = *test.assembly;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<OrvexSubscriptionManager> manager;
};

TEST_F(SubscriptionManagerTest, WhitelistedEntriesAreSentUntilTheyExpireCappedByTheBagTTL) {
  postBag(R"({"subscription_bundle_whitelist": ["org.example.Tv"],
              "subscription_domain_whitelist": ["News.Example"], "subscription_ttl": 600})");
  auto& registry = *assembly.subscriptionRegistry;
  EXPECT_FALSE(registry.publish("org.example.Tv", "type=premium, expires=3600"));
  EXPECT_FALSE(registry.publish("org.example.Paper", R"({"type": "daily", "expires": 60,
                                                        "domain": "news.example"})"));
  EXPECT_FALSE(registry.publish("org.example.Other", "type=basic, expires=3600"));
  EXPECT_EQ(listed(), Json::parse(R"([
      {"provider": "org.example.Paper", "type": "daily", "active": true,
       "domain": "news.example"},
      {"provider": "org.example.Tv", "type": "premium", "active": true}])"));
  EXPECT_EQ(delegate->latest(), listed());

  // The paper's own lifetime ends first; the TV entry's hour is capped at the bag's 600 s.
  test.advance(61s);
  EXPECT_EQ(listed().size(), 1u);
  test.advance(540s);
  EXPECT_EQ(listed(), Json::array());
  EXPECT_EQ(delegate->latest(), Json::array());
}

TEST_F(SubscriptionManagerTest, AccountStatusWithdrawalRestartAndTheProviderBound) {
  postBag(R"({"subscription_bundle_whitelist": ["org.example.Tv"]})");
  auto& registry = *assembly.subscriptionRegistry;
  registry.setAccountStatus(kMediaStoreAccountStatusSubscribed);
  EXPECT_FALSE(registry.publish("org.example.Tv", "type=premium, expires=3600"));
  EXPECT_EQ(listed().size(), 2u);
  EXPECT_EQ(listed()[1], Json::parse(R"({"provider": "wicker", "attribute": "premium",
                                          "active": true})"));

  // A registry made over the same defaults store has what was published, and the status.
  OrvexSubscriptionRegistry restarted(assembly);
  EXPECT_EQ(restarted.accountStatus(), kMediaStoreAccountStatusSubscribed);
  EXPECT_EQ(restarted.activeSubscriptions({"org.example.Tv"}, {}, std::nullopt).entries.size(), 1u);

  registry.withdraw("org.example.Tv");
  registry.setAccountStatus(1);
  EXPECT_EQ(listed(), Json::array());

  for (size_t i = 0; i < OrvexSubscriptionRegistry::kMaxProviders; ++i) {
    EXPECT_FALSE(registry.publish("p" + std::to_string(i), "type=t, expires=60"));
  }
  const auto refused = registry.publish("one.too.many", "type=t, expires=60");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->reason, SubscriptionRegistry::Refusal::Reason::kTooManyProviders);
  // Expired entries make room.
  test.advance(61s);
  EXPECT_FALSE(registry.publish("one.too.many", "type=t, expires=60"));
}

}  // namespace
}  // namespace orvex
