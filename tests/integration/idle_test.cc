// The daemon at rest: after a search its threads sleep until there is work.
#include <gtest/gtest.h>

#include <thread>

#include "tests/support/daemon_harness.h"
#include "tests/support/thread_stats.h"

namespace orvex {
namespace {

// What may legitimately run in the idle seconds after a search: the search's own tail (the
// feedback record reaching its session queue, the reply's bookkeeping) and a scheduled timer or
// two; 1 to 4 switches in all were seen. That is a bounded number of events whatever the
// machine's load: a busy machine adds involuntary switches only to threads that run anyway, and
// a sleeping thread never runs. A thread that polls on a period adds a switch per period: the
// four HTTP threads that each polled once a second made 12 in this window.
constexpr int64_t kMostSwitchesAtRest = 8;
constexpr auto kWindow = std::chrono::seconds(3);

TEST(IdleTest, AfterASearchTheDaemonSleeps) {
  testing::DaemonHarness harness(R"({"version": "1", "enabled": true, "min_query_length": 2,
    "search_url": "${BASE_URL}/search"})");
  harness.start();
  auto client = harness.clientWithBag({"com.zelmor.glance", "Glance/1"});
  auto answer = client->request(testing::searchRequest(1, "weath"));
  ASSERT_TRUE(answer && answer.value().reply);

  const pid_t pid = harness.daemon()->pid();
  const auto before = testing::threadSwitches(pid);
  std::this_thread::sleep_for(kWindow);
  const auto after = testing::threadSwitches(pid);
  EXPECT_LE(testing::switchesBetween(before, after), kMostSwitchesAtRest)
      << testing::describeWakers(before, after);
}

}  // namespace
}  // namespace orvex
