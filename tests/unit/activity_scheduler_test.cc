#include "orvexd/platform/activity_scheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "orvexd/platform/orvex_ipc_activity.h"
#include "orvexd/platform/virtual_clock.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using S = ActivityScheduler;

struct ActivitySchedulerTest : ::testing::Test {
  // Seconds since the start at which the handler ran.
  std::vector<int64_t> runs() {
    platform.settle();
    std::lock_guard lock(mutex);
    return seconds;
  }
  S::Handler recorder(bool keepGoing = false) {
    return [this, keepGoing](const std::string& identifier) {
      std::lock_guard lock(mutex);
      seconds.push_back((platform.clock->monotonicNow() - start) / 1s);
      if (keepGoing) {
        EXPECT_TRUE(scheduler->setState(identifier, S::kStateContinue));
      }
    };
  }
  Duration untilNextTimer() const { return *platform.clock->nextDeadline() - start; }

  testing::VirtualPlatform platform;
  std::shared_ptr<S> scheduler = std::make_shared<S>(*platform.pool, *platform.clock);
  const MonotonicTime start = platform.clock->monotonicNow();
  ActivityCriteria criteria = [] {
    ActivityCriteria everyTenMinutes;
    everyTenMinutes.delay = 300s, everyTenMinutes.repeating = true;
    everyTenMinutes.interval = 600s, everyTenMinutes.gracePeriod = 300s;
    return everyTenMinutes;
  }();
  std::mutex mutex;
  std::vector<int64_t> seconds;
};

TEST_F(ActivitySchedulerTest, RunsAfterTheDelayThenEveryIntervalOnOneTimer) {
  OrvexIpcActivity::registerActivityWithIdentifier(*scheduler, "flush", criteria, recorder());
  platform.advance(299s);
  EXPECT_TRUE(runs().empty());
  EXPECT_EQ(platform.clock->pendingTimers(), 1u);
  platform.advance(1s);
  EXPECT_EQ(runs(), (std::vector<int64_t>{300}));
  // Between runs the scheduler waits on exactly one timer, that of the next run.
  EXPECT_EQ(platform.clock->pendingTimers(), 1u);
  EXPECT_EQ(untilNextTimer(), 900s);
  platform.advance(1800s);
  EXPECT_EQ(runs(), (std::vector<int64_t>{300, 900, 1500, 2100}));
  EXPECT_EQ(OrvexIpcActivity::getStateForActivity(*scheduler, "flush"), S::kStateWait);

  // A run on demand leaves the schedule where it was.
  EXPECT_TRUE(scheduler->runNow("flush"));
  EXPECT_FALSE(scheduler->runNow("unknown"));
  EXPECT_EQ(runs(), (std::vector<int64_t>{300, 900, 1500, 2100, 2100}));
  EXPECT_EQ(untilNextTimer(), 2700s);

  OrvexIpcActivity::unregister(*scheduler, "flush");
  EXPECT_EQ(platform.clock->pendingTimers(), 0u);
}

TEST_F(ActivitySchedulerTest, ARunThatContinuesHoldsTheScheduleUntilItIsDone) {
  // Due while the screen is on: tried again after the grace period, with the screen asleep.
  std::atomic<bool> allowed{false};
  criteria.requireScreenSleep = criteria.requireUnlockedSinceBoot = true;
  scheduler->setSessionStateSource([&allowed] { return SessionState{allowed.load(), true}; });
  scheduler->registerActivity("flush", criteria, recorder(/*keepGoing=*/true));
  platform.advance(300s);
  EXPECT_TRUE(runs().empty()) << "the screen was on: tried again after the grace period";
  allowed = true;
  platform.advance(300s);
  EXPECT_EQ(runs(), (std::vector<int64_t>{600}));
  EXPECT_EQ(scheduler->getState("flush"), S::kStateContinue);
  EXPECT_FALSE(scheduler->runNow("flush")) << "already running";
  EXPECT_FALSE(scheduler->setState("flush", S::kStateContinue));
  EXPECT_EQ(platform.clock->pendingTimers(), 0u) << "nothing to wake for while it works";
  platform.advance(1000s);
  EXPECT_TRUE(scheduler->setState("flush", S::kStateDone));
  EXPECT_FALSE(scheduler->setState("flush", S::kStateDone));
  EXPECT_EQ(untilNextTimer(), 2200s) << "the interval counts from the end of the run";
}

}  // namespace
}  // namespace orvex
