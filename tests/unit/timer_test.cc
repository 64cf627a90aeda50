#include <gtest/gtest.h>

#include <vector>

#include "orvexd/platform/clock.h"
#include "orvexd/platform/one_shot_timer.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/virtual_clock.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

// Every test that drives time runs on this clock; these are the rules they rely on.
TEST(VirtualClock, FiresInDeadlineOrderWithTimeSetToEachDeadline) {
  VirtualClock clock;
  const auto monoStart = clock.monotonicNow();
  const auto wallStart = clock.wallNow();
  std::vector<std::pair<char, Duration>> fired;
  auto record = [&](char name) {
    return [&, name] { fired.emplace_back(name, clock.monotonicNow() - monoStart); };
  };
  clock.scheduleAfter(30s, record('c'));
  clock.scheduleAfter(10s, record('a'));
  clock.scheduleAfter(10s, record('b'));  // same deadline: scheduling order
  clock.scheduleAfter(20s, record('x')).cancel();
  // A jump of the wall clock alone fires nothing and leaves durations alone.
  clock.setWallTime(wallStart - 24h);
  clock.advance(30s);
  EXPECT_EQ(fired, (std::vector<std::pair<char, Duration>>{{'a', 10s}, {'b', 10s}, {'c', 30s}}));
  EXPECT_EQ(clock.wallNow(), wallStart - 24h + 30s);
  EXPECT_FALSE(clock.nextDeadline().has_value());
}

class OneShotTimerTest : public ::testing::Test {
 protected:
  testing::VirtualPlatform platform;
  SerialQueue queue{"com.zelmor.orvexd.timer", *platform.pool, *platform.clock};
  std::shared_ptr<int> owner = std::make_shared<int>(0);

  void onQueue(const std::function<void()>& job) { ASSERT_TRUE(queue.sync(job)); }
};

TEST_F(OneShotTimerTest, ReArmedTimerStaleFiringDoesNothing) {
  OneShotTimer timer(queue);
  std::vector<std::string> fired;  // queue only
  // Re-armed to an earlier deadline: the new one fires, the old one later stays silent.
  onQueue([&] { timer.arm(10min, owner, [&] { fired.push_back("first"); }); });
  platform.advance(2min);
  onQueue([&] { timer.arm(5min, owner, [&] { fired.push_back("second"); }); });
  platform.advance(5min);
  EXPECT_EQ(fired, (std::vector<std::string>{"second"}));
  platform.advance(1h);
  EXPECT_EQ(fired, (std::vector<std::string>{"second"}));
  onQueue([&] { EXPECT_FALSE(timer.isArmed()); });
  // (Re-armed to a later deadline, as every record re-arms the idle timer: the session manager's
  // tests.)
}

TEST_F(OneShotTimerTest, CancelOwnerGoneAndTimerGoneAllSilenceTheFiring) {
  std::vector<int> fired;
  {
    OneShotTimer timer(queue);
    onQueue([&] {
      timer.arm(1s, owner, [&] { fired.push_back(1); });
      timer.cancel();
      EXPECT_FALSE(timer.isArmed());
    });
    platform.advance(2s);

    auto shortLived = std::make_shared<int>(0);
    onQueue([&] { timer.arm(1s, shortLived, [&] { fired.push_back(2); }); });
    shortLived.reset();
    platform.advance(2s);

    onQueue([&] { timer.arm(1s, owner, [&] { fired.push_back(3); }); });
  }  // the timer itself is destroyed while armed
  platform.advance(2s);
  EXPECT_TRUE(fired.empty());
}

TEST_F(OneShotTimerTest, RearmingFromItsOwnJobRunsHoursOfPeriodsInstantly) {
  OneShotTimer timer(queue);
  std::vector<Duration> firings;
  const auto start = platform.clock->monotonicNow();
  std::function<void()> tick = [&] {
    firings.push_back(platform.clock->monotonicNow() - start);
    timer.arm(600s, owner, tick);
  };
  onQueue([&] { timer.arm(600s, owner, tick); });
  platform.advance(10h);
  ASSERT_EQ(firings.size(), 60u);
  EXPECT_EQ(firings.front(), 600s);
  EXPECT_EQ(firings.back(), 10h);
  onQueue([&] {
    EXPECT_TRUE(timer.isArmed());
    timer.cancel();
  });
}

}  // namespace
}  // namespace orvex
