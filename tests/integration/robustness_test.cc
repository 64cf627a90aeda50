// What a hostile client or a broken back-end can throw at the daemon: answers nested too deep to
// walk, inputs over their bounds, replies over what the bus carries, and the bus going away.
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>

#include "orvexd/base/orvex_names.h"
#include "orvexd/model/nb_feedback.h"
#include "tests/support/daemon_harness.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using testing::searchRequest;

constexpr const char* kBag = R"({"version": "7", "enabled": true, "feedback_enabled": true,
  "search_url": "${BASE_URL}/search"})";

const ORVSessionConfiguration kGlance{"com.zelmor.glance", "Glance/1"};

TEST(RobustnessTest, AnAnswerNestedTooDeepIsRefusedDroppedFromTheCacheAndNeverReplayed) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  auto client = harness.client();
  ASSERT_TRUE(client->configure(kGlance));

  // 100 000 levels in 200 kB, which the back-end even lets the URL cache keep for ten minutes.
  const size_t depth = 100000;
  harness.backend().setFault("search", {{"status", 200},
                                        {"body", std::string(depth, '[') + std::string(depth, ']')},
                                        {"headers", {{"Cache-Control", "max-age=600"}}}});
  auto refused = client->request(searchRequest(1, "weath"));
  ASSERT_TRUE(refused) << refused.error().message;
  ASSERT_TRUE(refused.value().error);
  EXPECT_EQ(refused.value().error->domain, kORVErrorDomain);
  EXPECT_EQ(refused.value().error->code, 3840);
  EXPECT_TRUE(client->ping());

  // A connection cut halfway through the answer is the transport's failure, and says so.
  harness.backend().setFault("search", {{"drop", true}});
  auto cut = client->request(searchRequest(2, "weath"));
  ASSERT_TRUE(cut);
  ASSERT_TRUE(cut.value().error);
  EXPECT_EQ(cut.value().error->domain, "ORVHTTPErrorDomain");

  // The back-end is mended: the same search goes to it again rather than to the cached answer,
  // and so it does after a restart.
  harness.backend().clearFaults();
  auto mended = client->request(searchRequest(3, "weath"));
  ASSERT_TRUE(mended);
  EXPECT_FALSE(mended.value().error);
  EXPECT_EQ(harness.backend().requestCount("search"), 3u);
  ASSERT_EQ(harness.stop(), 0);
  harness.start();
  client = harness.client();
  ASSERT_TRUE(client->configure(kGlance));
  auto again = client->request(searchRequest(4, "weath"));
  ASSERT_TRUE(again);
  EXPECT_FALSE(again.value().error) << again.value().error->describe() << "\n"
                                    << harness.daemonLog();
}

TEST(RobustnessTest, InputsAndRepliesOverTheirBoundsAreRefusedAndTheDaemonCarriesOn) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  auto client = harness.client();

  auto longIdentifier = client->configure({std::string(10 << 20, 'i'), "Glance/1"});
  ASSERT_FALSE(longIdentifier);
  EXPECT_EQ(longIdentifier.error().name, kOrvexErrorInvalidArgument);
  EXPECT_NE(longIdentifier.error().message.find("identifier"), std::string::npos);
  auto longAgent = client->configure({"com.zelmor.glance", std::string(256, 'a')});
  ASSERT_FALSE(longAgent);
  EXPECT_EQ(longAgent.error().name, kOrvexErrorInvalidArgument);
  // A user agent that would add a header of its own invalidates the connection.
  auto injected = harness.client()->configure({"com.zelmor.glance", "G/1\r\nX-Injected: yes"});
  ASSERT_FALSE(injected);
  EXPECT_EQ(injected.error().name, kOrvexErrorConnectionInvalidated);
  EXPECT_NE(harness.daemonLog().find("control character in its identifier or agent"),
            std::string::npos);

  ASSERT_TRUE(client->configure(kGlance));
  auto longQuery = client->request(searchRequest(1, std::string(5000, 'q')));
  ASSERT_FALSE(longQuery);
  EXPECT_EQ(longQuery.error().name, kOrvexErrorInvalidArgument);

  // A record over its bound is dropped and counted. (Records that together are more than the bus
  // carries: the session crash test's Feedback that answers with what fits.)
  NBStartSearchFeedback huge;
  huge.timestamp = 1;
  huge.input = std::string(2 << 20, 'x');
  ASSERT_TRUE(client->reportEvent("searchStarted", 0, huge));
  EXPECT_TRUE(testing::eventually(
      [&] { return harness.counter("com.zelmor.orvexd.records.refused") == 1; }));
  EXPECT_TRUE(client->ping());
  EXPECT_TRUE(client->request(searchRequest(2, "weath")));
}

TEST(RobustnessTest, LosingTheBusEndsTheDaemonWithStatusZeroAndAFault) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  ASSERT_TRUE(harness.client()->ping());
  harness.bus().process().signal(SIGKILL);
  ASSERT_EQ(harness.daemon()->waitForExit(10s), 0);
  EXPECT_NE(harness.daemonLog().find("lost the session bus connection"), std::string::npos);
}

}  // namespace
}  // namespace orvex
