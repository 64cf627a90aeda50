// The subscription registry through the real daemon: what applications publish reaches the
// reference back-end's search requests as "X-Zelmor-Subscriptions" when the bag whitelists it,
// and leaves them when withdrawn; the account status is only the media store's; entries survive
// a restart. This test process publishes under its own application id, orvexctl under "orvexctl".
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "orvexd/base/orvex_names.h"
#include "orvexd/platform/application_identity.h"
#include "tests/support/daemon_harness.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

const std::string kSelf = applicationIdForProcess(getpid()).value_or("?");

std::string bagWhitelisting(const std::string& provider) {
  return Json{{"version", "1"},
              {"enabled", true},
              {"search_url", "${BASE_URL}/search"},
              {"subscription_bundle_whitelist", {provider}},
              {"subscription_ttl", 86400}}
      .dump();
}

class SubscriptionsTest : public ::testing::Test {
 protected:
  // The header of the search the back-end receives for `query`; none when it came without.
  std::optional<Json> headerOfSearch(const std::string& query) {
    auto answer = client->request(testing::searchRequest(++queryId, query));
    EXPECT_TRUE(answer && answer.value().reply) << query;
    const auto requests = harness.backend().requests();
    for (auto request = requests.rbegin(); request != requests.rend(); ++request) {
      if (request->endpoint != "search") continue;
      const auto found = request->headers.find("X-Zelmor-Subscriptions");
      if (found == request->headers.end()) return std::nullopt;
      return Json::parse(found->second);
    }
    return std::nullopt;
  }
  int ctl(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{ORVEXCTL_BINARY, "--address", harness.bus().address(),
                                  "subscriptions"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    testing::ChildProcess process(argv, {}, harness.directory() / "ctl.out");
    return process.waitForExit(30s).value_or(-1);
  }

  testing::DaemonHarness harness{bagWhitelisting(kSelf),
                                 {{kORVMediaStoreIdentifierKey, PlistValue("orvexctl")}}};
  std::unique_ptr<OrvexClient> client;
  int64_t queryId = 0;
};

TEST_F(SubscriptionsTest, PublishedSubscriptionsReachSearchesWhileWhitelistedAndSurviveRestarts) {
  harness.start();
  client = harness.clientWithBag({"com.zelmor.glance", "Glance/1"});
  EXPECT_EQ(headerOfSearch("weather"), std::nullopt);
  EXPECT_EQ(client->listSubscriptions().value(), "[]");

  // A description that does not read is refused with its reason.
  auto refused = client->publishSubscription("type=a, type=b, expires=60");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().name, kOrvexErrorInvalidArgument);
  EXPECT_NE(refused.error().message.find("duplicate key type"), std::string::npos);

  // Ours is whitelisted, orvexctl's is not; only the media store sets the account status.
  ASSERT_TRUE(client->publishSubscription(R"({"type": "premium", "expires": "3600"})"));
  EXPECT_EQ(ctl({"publish", "type=basic, expires=3600"}), 0);
  const Json ours{{"provider", kSelf}, {"type", "premium"}, {"active", true}};
  EXPECT_EQ(headerOfSearch("zebra"), Json::array({ours}));
  auto denied = client->setAccountStatus(3);
  ASSERT_FALSE(denied);
  EXPECT_EQ(denied.error().name, kOrvexErrorAccessDenied);
  EXPECT_EQ(ctl({"account-status", "3"}), 0);
  const Json wicker{{"provider", "wicker"}, {"attribute", "premium"}, {"active", true}};
  EXPECT_EQ(headerOfSearch("light"), Json::array({ours, wicker}));

  // Kept across a restart.
  ASSERT_EQ(harness.stop(), 0);
  harness.start();
  client = harness.clientWithBag({"com.zelmor.glance", "Glance/1"});
  EXPECT_EQ(Json::parse(client->listSubscriptions().value()), Json::array({ours, wicker}));

  ASSERT_TRUE(client->withdrawSubscription());
  EXPECT_EQ(ctl({"account-status", "0"}), 0);
  EXPECT_EQ(headerOfSearch("garden"), std::nullopt);
}

}  // namespace
}  // namespace orvex
