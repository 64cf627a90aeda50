#include "orvexd/network/user_guid_controller.h"

#include <gtest/gtest.h>

#include <vector>

#include "orvexd/base/orvex_names.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "tests/support/collector.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

// Observers see the GUID they are told of; a rotation happens on the first ask after fifteen
// minutes, or on reset().
TEST(OrvexUserGUIDController, RotatesLazilyAfterFifteenMinutesAndOnReset) {
  testing::TestAssembly test;
  auto controller = std::make_shared<OrvexUserGUIDController>(*test.assembly);
  testing::Collector<Uuid> announced;  // the GUID each notification's observer reads
  auto token = test.assembly->notificationCenter->addObserver(
      kORVUserGUIDChangeNotification, nullptr,
      [&](const Notification&) { announced.add(controller->currentUserGUID()); });
  const int64_t countersBefore = testing::counterValue(kORVCounterUserGUID);

  const Uuid first = controller->currentUserGUID();
  EXPECT_FALSE(first.isNil());
  test.advance(14min + 59s);
  EXPECT_EQ(controller->currentUserGUID(), first);

  // Nothing happens when the time passes; the first ask after it rotates and notifies once.
  test.advance(1s);
  test.settle();
  EXPECT_EQ(announced.size(), 0u);
  const Uuid second = controller->currentUserGUID();
  EXPECT_NE(second, first);
  EXPECT_EQ(controller->currentUserGUID(), second);
  test.settle();
  EXPECT_EQ(announced.values(), std::vector<Uuid>{second});
  EXPECT_EQ(testing::counterValue(kORVCounterUserGUID), countersBefore + 1);

  // The new GUID lives 15 minutes from its rotation, not from the start. (reset(): the session
  // manager's test of a record under another GUID.)
  test.advance(14min);
  EXPECT_EQ(controller->currentUserGUID(), second);
}

}  // namespace
}  // namespace orvex
