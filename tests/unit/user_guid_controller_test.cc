#include "orvexd/network/user_guid_controller.h"

#include <gtest/gtest.h>

#include <atomic>

#include "orvexd/base/orvex_names.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

TEST(OrvexUserGUIDController, RotatesLazilyAfterFifteenMinutesAndOnReset) {
  testing::TestAssembly test;
  std::atomic<int> notifications{0};
  auto token = test.assembly->notificationCenter->addObserver(
      kORVUserGUIDChangeNotification, nullptr, [&](const Notification&) { ++notifications; });
  auto controller = std::make_shared<OrvexUserGUIDController>(*test.assembly);
  const int64_t countersBefore = testing::counterValue(kORVCounterUserGUID);

  const Uuid first = controller->currentUserGUID();
  EXPECT_FALSE(first.isNil());
  test.advance(14min + 59s);
  EXPECT_EQ(controller->currentUserGUID(), first);
  test.settle();
  EXPECT_EQ(notifications, 0);

  // Nothing happens when the time passes; the first ask after it rotates and notifies once.
  test.advance(1s);
  test.settle();
  EXPECT_EQ(notifications, 0);
  const Uuid second = controller->currentUserGUID();
  EXPECT_NE(second, first);
  EXPECT_EQ(controller->currentUserGUID(), second);
  test.settle();
  EXPECT_EQ(notifications, 1);
  EXPECT_EQ(testing::counterValue(kORVCounterUserGUID), countersBefore + 1);

  // reset() rotates even a brand-new GUID, before any later ask is answered.
  controller->reset();
  const Uuid third = controller->currentUserGUID();
  EXPECT_NE(third, second);
  test.settle();
  EXPECT_EQ(notifications, 2);

  // The new GUID lives 15 minutes from its rotation, not from the start.
  test.advance(14min);
  EXPECT_EQ(controller->currentUserGUID(), third);
}

TEST(OrvexUserGUIDController, ObserversSeeTheNewGuidAndInstancesNeverShareOne) {
  testing::TestAssembly test;
  auto controller = std::make_shared<OrvexUserGUIDController>(*test.assembly);
  std::optional<Uuid> seenByObserver;
  auto token = test.assembly->notificationCenter->addObserver(
      kORVUserGUIDChangeNotification, nullptr,
      [&](const Notification&) { seenByObserver = controller->currentUserGUID(); });
  controller->reset();
  test.settle();
  ASSERT_TRUE(seenByObserver);
  EXPECT_EQ(*seenByObserver, controller->currentUserGUID());

  // A restarted daemon starts with a GUID unrelated to the previous one.
  OrvexUserGUIDController restarted(*test.assembly);
  EXPECT_NE(restarted.currentUserGUID(), controller->currentUserGUID());
  EXPECT_EQ(controller->currentUserGUID().upperString().size(), 36u);
}

}  // namespace
}  // namespace orvex
