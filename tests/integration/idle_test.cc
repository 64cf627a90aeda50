// The daemon at rest: after a search its threads sleep until there is work.
#include <gtest/gtest.h>

#include <thread>

#include "tests/support/daemon_harness.h"
#include "tests/support/thread_stats.h"

namespace orvex {
namespace {

// The count starts once the search's tail has run (see below). What may legitimately run in
// the window then is a late timer of that tail: the timer thread wakes, and a worker (made anew,
// if the last one has ended) runs what it hands on, a few switches at most. That stays so on a
// loaded machine: load adds involuntary switches only to threads that run anyway, and a sleeping
// thread never runs. A thread that polls on a period adds a switch per period: the four HTTP
// threads that each polled once a second made 12 in this window.
constexpr int64_t kMostSwitchesAtRest = 4;
constexpr auto kWindow = std::chrono::seconds(3);

TEST(IdleTest, AfterASearchTheDaemonSleeps) {
  testing::DaemonHarness harness(R"({"version": "1", "enabled": true, "min_query_length": 2,
    "search_url": "${BASE_URL}/search"})");
  harness.start();
  auto client = harness.clientWithBag({"com.zelmor.glance", "Glance/1"});
  auto answer = client->request(testing::searchRequest(1, "weath"));
  ASSERT_TRUE(answer && answer.value().reply);

  // The search's own tail (its feedback record, the client's bookkeeping) runs on after the
  // reply, the longer the busier the machine: the count starts once a second has passed
  // without a switch, or after 20 s.
  const pid_t pid = harness.daemon()->pid();
  auto before = testing::threadSwitches(pid);
  for (int second = 0; second < 20; ++second) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    auto now = testing::threadSwitches(pid);
    const bool quiet = testing::switchesBetween(before, now) == 0;
    before = std::move(now);
    if (quiet) break;
  }
  std::this_thread::sleep_for(kWindow);
  const auto after = testing::threadSwitches(pid);
  std::string wakers;
  EXPECT_LE(testing::switchesBetween(before, after, &wakers), kMostSwitchesAtRest) << wakers;
}

}  // namespace
}  // namespace orvex
